// The computer's resource id on the management server: kept in the settings object
// (tarnAgentResourceID) and in the resource store, a property list at
// tarnagentStorageFilePath under the key "RESOURCEID"; fetched from the server when unknown.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

// 1 without doing anything for an absent id. Otherwise sets tarnAgentResourceID and
// "RESOURCEID" in the resource store (when it is open) and writes the store to
// tarnagentStorageFilePath; 0.
// True for an id that can only be an id: 1 to 64 letters, digits, "-", "_" and ".". Any
// other id, from the server or from the resource store, is treated as no id at all.
bool IsResourceIdToken(std::string_view id);

DWORD UpdateResourceID(const std::optional<std::string>& resourceId);

// Fetches "client-data/<customer id>/domains/<name space>/resources/<computer name>.xml" from
// the management server (its identifying header required; each value percent-encoded as one
// path segment), loads it into the store table "Agentparams" (the document is refused when it
// is over 1 MiB, has an element with more than 256 attributes, or holds elements other than
// Agentparams rows and "List" grouping elements) and takes "param_Value" of the first row with
// PARAM_NAME 'RESOURCE_ID' through UpdateResourceID. Rows of other tables the data dictionary
// defines are ignored with a log line. 1 when the document cannot be had or loaded, the table
// is not there or the id is not a token (see IsResourceIdToken); 0 on success, which includes a document without such a row or without a
// value (the id then stays as it was). Callers read tarnAgentResourceID afterwards. Needs the data
// dictionary defining the table.
DWORD GetResourceIDFromServer();

}  // namespace tarn
