/* A component written in C, built against the plain C declaration. */
#include "omkErrors.h"

void ReportFromC(unsigned long error) {
    OMK_ReportError(3, L"%hs(): from C %s err=%lu 0x%x", "ReportFromC", L"\x00e9", error, 255u);
}
