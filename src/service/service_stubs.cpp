// Input slots whose control channel is not in yet: they forward nothing.
#include "service/log_line.h"
#include "service/orvane_service.h"

void OrvaneService::requestTouchStatus(int, int, QString) {}
void OrvaneService::requestTouchAction(uint, uint, uint) {}
void OrvaneService::requestKeyValue(int type) { logLine() << "requestKeyValue" << type; }
