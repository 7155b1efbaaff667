// Change notifications of the store. Every added, updated or deleted row is
// offered to registered listeners; this program registers none, so sending
// only writes a trace line.
#pragma once

namespace tarn {

struct RowObject;

enum class DataEvent { kRowAdded, kRowUpdated, kRowDeleted };

// Offers the row of tableName to the listeners. Traces "In send notification\n".
void SendNotification(const RowObject& row, const char* tableName, DataEvent event);

}  // namespace tarn
