// Stand-in for the product's folders until the folder helpers land.
#pragma once

#include <windows.h>

class CDef {
public:
    static CDef& GetInstance();
    wchar_t FOLDER_OMK_INSTALL_LOCATION[260];
};
