// Report commands: ioreport and cpuload. Both ignore their arguments; their
// loops live with the report-channel library.
#include "talvexctl.h"

#include "report_commands.h"

int TalvexCmdIoreport(int, char *[]) { return IOReportCommandIoreport(); }

int TalvexCmdCpuload(int, char *[]) { return IOReportCommandCpuload(); }
