// The rule parser: turns the host's rule text (JSON whose root object holds
// the array "RegParseConfig") into the rule table, one record per ParseID, a
// later rule replacing an earlier one with the same ParseID. The parser holds
// no state; every operation traces through the host's log sink (nothing is
// written while no sink is set).
//
// Accepted member types (anything else leaves the field at its default):
//   "ParseID", "FunctionID", "CheckID"  integers that fit a signed 32-bit value
//   "RegRootkey"                        any integer that fits a signed 64-bit
//                                       value; its low 32 bits are kept
//   "RegSubkey", "RegValueName",        strings (UTF-8, converted with code
//   "Parameter1"                        page 65001); "RegValueName" also sets
//                                       the value-name flag
// A rule is valid when ParseID > 0, FunctionID > 0, CheckID <= 2 and the root
// key is 0, or HKEY_LOCAL_MACHINE / HKEY_USERS with a non-empty sub-key.
#pragma once
#include "rules/reg_rule.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kw {

class ConfigRuleParse {
public:
    // Empty text: error line "ConfigFileToRegditRule ConfigContent.length = 0  Fail:%d"
    // (the thread's last error), false, table untouched. Otherwise the result
    // of Json2RuleArry on a copy of the text.
    bool ConfigFileToRegditRule(const std::string& configContent, RuleTable& ruleTable) const;

    // Clears the table and fills it from the text. The text is read up to its
    // first NUL byte (see the .cpp). False on a parse error (error line with
    // the parser's code and byte offset; running out of memory while parsing
    // is reported as code 16, "terminated", at the offset reached) or when some element of
    // "RegParseConfig" was not a valid rule; the valid rules are stored in
    // every case. A root that is not an object, a missing "RegParseConfig" or
    // one that is not an array gives true and an empty table.
    bool Json2RuleArry(const std::string& configContent, RuleTable& ruleTable) const;

    // Rewrites the first "CurrentControlSet" (any case) in RegSubkey into the
    // concrete control-set name of this machine; always true.
    bool TranslateSubkey(RegRule& rule) const;
    // The same with a given control-set name (may be empty).
    bool TranslateSubkey(RegRule& rule, const wchar_t* controlSetName) const;

    // Information lines for one rule: PRINTF_REGRULE for rejected rules (and
    // for every rule the analysis examines), PRINTF_REGRULE_EX with the array
    // index for accepted ones.
    void PRINTF_REGRULE(const RegRule& rule) const;
    void PRINTF_REGRULE_EX(int index, const RegRule& rule) const;

    // The validation above, on its own.
    static bool IsValidRule(const RegRule& rule) noexcept;
};

// Caps the memory one parse may allocate, in bytes (SIZE_MAX, the default,
// for no cap beyond the machine's). A parse that needs more stops as if the
// machine had run out of memory. For tests of that path.
void SetRuleParseMemoryLimit(size_t cb) noexcept;

}  // namespace kw
