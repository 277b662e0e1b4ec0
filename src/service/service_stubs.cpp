// Input slots whose control channel is not in yet: they forward nothing.
#include "service/log_line.h"
#include "service/orvane_service.h"

