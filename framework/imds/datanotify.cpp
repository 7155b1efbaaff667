#include "framework/imds/datanotify.h"

#include "framework/logging/logger.h"

namespace tarn {

void SendNotification(const RowObject& /*row*/, const char* /*tableName*/, DataEvent /*event*/) {
  TraceLogMessage("In send notification\n");
}

}  // namespace tarn
