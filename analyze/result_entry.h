// Result entries: one per file an analyzer finds. An entry is owned by the
// analyzer until PushNotifyEntry moves it onto the analysis object's result
// list.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

namespace kw {

struct ResultEntry {
    uint32_t seq = 0;       // from the analysis object's entry counter
    uint32_t dsid = 0;      // the record's rule id
    uint32_t hRootkey = 0;  // the record's root key
    std::wstring filePath;  // empty for an entry that reports only a location
    std::wstring subKey;
    std::wstring valueName;
    std::wstring valueData;   // the piece of data the entry came from
    std::wstring sourcePath;  // the file an entry was found in (shortcuts, INI files)
};

using ResultEntryPtr = std::unique_ptr<ResultEntry>;

}  // namespace kw
