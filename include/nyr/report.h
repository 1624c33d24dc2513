// Client of the report service.
#ifndef NYR_REPORT_H
#define NYR_REPORT_H

#include <string>

namespace nyr {

// Hands a report over for delivery. `type` and `subtype` say to the service what `body` holds. The body is not
// changed. Returns 0 when the report is taken, -1 otherwise; throws nothing.
__attribute__((visibility("default"))) int sendReport(int type, int subtype, std::string &body);

} // namespace nyr

#endif
