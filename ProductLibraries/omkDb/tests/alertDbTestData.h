// What the alert database tests and their second process agree on.
#pragma once

#include <string>

namespace alertdbtest {

// A plausible alert of about 2 KB whose text depends on the creation time, so
// a reader can tell a whole record from a torn or mixed-up one.
inline std::string AlertXml(unsigned long long creationTime) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<TolvaneAlerts>\r\n<ServiceTag>ABC1234</ServiceTag>";
    text += "\r\n\t<Alert>\r\n\t\t<AlertId>" + std::to_string(creationTime) + "</AlertId>\r\n";
    while (text.size() < 2000)
        text += "\t\t<Item>caf\xC3\xA9 & 100% <ok> " + std::to_string(creationTime) + "</Item>\r\n";
    text += "\t</Alert>\r\n</TolvaneAlerts>\r\n";
    return text;
}

}  // namespace alertdbtest
