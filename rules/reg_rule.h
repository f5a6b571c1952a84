// One deep-scan rule and the rule table (ParseID -> rule, a later rule with the
// same ParseID replacing an earlier one).
#pragma once
#include <windows.h>

#include <cstdint>
#include <map>
#include <string>

namespace kw {

struct RegRule {
    int32_t ParseID = 0;
    int32_t FunctionID = 0;
    uint32_t CheckID = 0;
    uint32_t bValueName = 0;   // 1 when "RegValueName" was given as a string
    uint32_t RegRootkey = 0;   // 0, 0x80000002 (HKLM) or 0x80000003 (HKU)
    std::wstring RegSubkey;    // CurrentControlSet already rewritten
    std::wstring RegValueName;
    std::wstring Parameter1;
};

using RuleTable = std::map<int32_t, RegRule>;

}  // namespace kw
