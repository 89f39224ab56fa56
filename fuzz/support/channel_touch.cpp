#include <IOReport.h>

#include "fuzz_check.h"

void talvex::fuzz::touch_channel(CFDictionaryRef channel) {
    IOReportChannelGetChannelID(channel);
    IOReportChannelGetDriverID(channel);
    IOReportChannelGetDriverName(channel);
    IOReportChannelGetGroup(channel);
    IOReportChannelGetSubGroup(channel);
    IOReportChannelGetFormat(channel);
    IOReportChannelGetCategories(channel);
    IOReportChannelGetUnit(channel);
    IOReportChannelGetChannelName(channel);
    IOReportChannelGetUnitLabel(channel);
    release(IOReportChannelCopyDescription(channel, nullptr, "# "));
    release(IOReportSampleCopyDescription(channel, nullptr, nullptr));
    release(IOReportSampleCopyDescription(channel, nullptr, "  "));
}
