#include "rules/config_rule_parse.h"

#include "common/root_keys.h"
#include "common/strutil.h"
#include "diag/trace.h"
#include "resolve/wow64.h"
#include "rules/rule_text_convert.h"

// The library's member iterator derives from std::iterator, which C++17 deprecates.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <rapidjson/document.h>
#pragma GCC diagnostic pop

#include <cstdlib>
#include <cstring>
#include <new>

namespace kw {

namespace {

// The parser's memory. The JSON library goes on with a null pointer when an
// allocation fails, so a failure is turned into std::bad_alloc here and
// caught around the parse. Each parse may take at most g_cbParseLimit bytes in
// all (counted per thread, never given back): unlimited unless a test sets it.
size_t g_cbParseLimit = SIZE_MAX;
thread_local size_t t_cbParseUsed = 0;

struct ParseAllocator {
    static const bool kNeedFree = true;
    static void Charge(size_t cb) {
        if (cb > g_cbParseLimit - t_cbParseUsed) throw std::bad_alloc();
        t_cbParseUsed += cb;
    }
    void* Malloc(size_t size) {
        if (!size) return nullptr;
        Charge(size);
        void* p = std::malloc(size);
        if (!p) throw std::bad_alloc();
        return p;
    }
    void* Realloc(void* originalPtr, size_t originalSize, size_t newSize) {
        if (!newSize) {
            std::free(originalPtr);
            return nullptr;
        }
        if (newSize > originalSize) Charge(newSize - originalSize);
        void* p = std::realloc(originalPtr, newSize);
        if (!p) throw std::bad_alloc();  // the old block stays with its owner
        return p;
    }
    static void Free(void* ptr) { std::free(ptr); }
};

constexpr uint32_t kMaxCheckId = 2;

constexpr size_t kPoolChunkBytes = 1024;
// Iterative parsing accepts the same grammar and reports the same errors as
// the recursive default, but deeply nested text cannot exhaust the stack of a
// 32-bit host thread.
constexpr unsigned kParseFlags = rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag;

using PoolAllocator = rapidjson::MemoryPoolAllocator<ParseAllocator>;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, PoolAllocator, ParseAllocator>;
using JsonValue = JsonDocument::ValueType;

constexpr size_t kCchSubkeyBuffer = 1024;
constexpr size_t kCchSubkeyPrefixMax = 511;
const wchar_t kControlSetToken[] = L"CurrentControlSet";

const char* RootKeyText(uint32_t root) noexcept {
    if (root == KW_HKEY_LOCAL_MACHINE) return "HKEY_LOCAL_MACHINE";
    if (root == KW_HKEY_USERS) return "HKEY_USERS";
    return "NULL";
}

// A string member is taken up to its first NUL: rule texts name registry
// paths and values, which cannot hold one.
std::wstring StringMember(const JsonValue& v, const CRuleTextConverter& conv) {
    const char* s = v.GetString();
    size_t cb = strnlen(s, v.GetStringLength());
    return conv.ToWide(s, cb);
}

void ReadInt32(const JsonValue& obj, const char* name, int32_t& field) {
    auto it = obj.FindMember(name);
    if (it != obj.MemberEnd() && it->value.IsInt()) field = it->value.GetInt();
}

RegRule ReadRule(const JsonValue& obj, const CRuleTextConverter& conv) {
    RegRule rule;
    int32_t checkId = 0;
    ReadInt32(obj, "ParseID", rule.ParseID);
    ReadInt32(obj, "FunctionID", rule.FunctionID);
    ReadInt32(obj, "CheckID", checkId);
    rule.CheckID = static_cast<uint32_t>(checkId);

    auto it = obj.FindMember("RegRootkey");
    // Root keys are written as the handle's decimal value (2147483650), which
    // does not fit a signed 32-bit integer: any 64-bit integer is accepted.
    if (it != obj.MemberEnd() && it->value.IsInt64())
        rule.RegRootkey = static_cast<uint32_t>(static_cast<uint64_t>(it->value.GetInt64()));

    it = obj.FindMember("RegSubkey");
    if (it != obj.MemberEnd() && it->value.IsString()) rule.RegSubkey = StringMember(it->value, conv);
    it = obj.FindMember("RegValueName");
    if (it != obj.MemberEnd() && it->value.IsString()) {
        rule.RegValueName = StringMember(it->value, conv);
        rule.bValueName = 1;
    }
    it = obj.FindMember("Parameter1");
    if (it != obj.MemberEnd() && it->value.IsString()) rule.Parameter1 = StringMember(it->value, conv);
    return rule;
}

}  // namespace

void SetRuleParseMemoryLimit(size_t cb) noexcept { g_cbParseLimit = cb; }

bool ConfigRuleParse::IsValidRule(const RegRule& rule) noexcept {
    if (rule.ParseID <= 0 || rule.FunctionID <= 0) return false;
    if (rule.CheckID > kMaxCheckId) return false;
    if (rule.RegRootkey == 0) return true;
    // Per-user keys are addressed through HKEY_USERS; no other root is allowed.
    if (rule.RegRootkey != KW_HKEY_LOCAL_MACHINE && rule.RegRootkey != KW_HKEY_USERS) return false;
    return !rule.RegSubkey.empty();
}

bool ConfigRuleParse::ConfigFileToRegditRule(const std::string& configContent,
                                             RuleTable& ruleTable) const {
    if (configContent.empty()) {
        const DWORD err = GetLastError();
        KW_ERROR("ConfigRuleParse::ConfigFileToRegditRule",
                 "ConfigFileToRegditRule ConfigContent.length = 0  Fail:%d", static_cast<int>(err));
        return false;
    }
    // No copy: the parser only reads the text, and a copy of a large text is
    // one more chance to run out of memory.
    return Json2RuleArry(configContent, ruleTable);
}

bool ConfigRuleParse::Json2RuleArry(const std::string& configContent, RuleTable& ruleTable) const {
    ruleTable.clear();

    PoolAllocator pool(kPoolChunkBytes);
    JsonDocument doc(&pool);
    // The text ends at its first NUL byte, whatever length the host gave: the
    // host hands over C text, and the parser cannot tell an embedded NUL from
    // the end of its input. A NUL inside the JSON is therefore a parse error,
    // and anything after a NUL that follows a complete document is ignored.
    rapidjson::StringStream stream(configContent.c_str());
    int code = rapidjson::kParseErrorNone;
    size_t offset = 0;
    t_cbParseUsed = 0;
    try {
        doc.ParseStream<kParseFlags>(stream);
        code = doc.GetParseError();
        offset = doc.GetErrorOffset();
        // The iterative parser reports any bad first character as an empty
        // document; the recursive one (whose codes the trace has always
        // shown) says "invalid value" unless the text really ends there.
        if (code == rapidjson::kParseErrorDocumentEmpty && configContent.c_str()[offset] != '\0')
            code = rapidjson::kParseErrorValueInvalid;
    } catch (const std::bad_alloc&) {
        // Out of memory: the parse stops where it stood.
        code = rapidjson::kParseErrorTermination;
        offset = stream.Tell();
    }
    if (code != rapidjson::kParseErrorNone) {
        KW_ERROR("ConfigRuleParse::Json2RuleArry", "ConfigRuleParse::Json2RuleArry parse json error=%d, offset=%d",
                 code, static_cast<int>(offset));
        return false;
    }
    if (!doc.IsObject()) return true;

    auto config = doc.FindMember("RegParseConfig");
    if (config == doc.MemberEnd() || !config->value.IsArray()) return true;

    const CRuleTextConverter conv;
    bool allValid = true;
    int index = 0;
    for (const JsonValue& element : config->value.GetArray()) {
        const int current = index++;
        if (!element.IsObject()) {
            // Not a rule at all: skipped like an invalid rule, so the result
            // tells the host that its text was not entirely usable.
            KW_ERROR("ConfigRuleParse::Json2RuleArry", "Rule[%d] is not an object", current);
            allValid = false;
            continue;
        }
        // The element is not written back to JSON text: nothing would read
        // that text, and writing a deeply nested element recurses.
        RegRule rule = ReadRule(element, conv);
        if (IsValidRule(rule)) {
            TranslateSubkey(rule);
            const int32_t id = rule.ParseID;
            RegRule& stored = ruleTable[id];
            stored = std::move(rule);
            PRINTF_REGRULE_EX(current, stored);
        } else {
            KW_ERROR("ConfigRuleParse::Json2RuleArry", "Rule[%d] ParseID:%d Not meet the requirement",
                     current, rule.ParseID);
            PRINTF_REGRULE(rule);
            allValid = false;
        }
    }
    return allValid;
}

bool ConfigRuleParse::TranslateSubkey(RegRule& rule) const {
    if (rule.RegSubkey.empty()) return true;
    return TranslateSubkey(rule, GetCurrentControlSetName());
}

bool ConfigRuleParse::TranslateSubkey(RegRule& rule, const wchar_t* controlSetName) const {
    if (rule.RegSubkey.empty()) return true;

    wchar_t copy[kCchSubkeyBuffer];
    CopyBounded(copy, kCchSubkeyBuffer, rule.RegSubkey.c_str(), rule.RegSubkey.size());
    const std::wstring searched(copy);
    const size_t pos = FindNoCase(searched, kControlSetToken);
    if (pos == std::wstring::npos) return true;

    // The character in front of the token (the separator) is dropped and a
    // backslash written instead; a token at the very start has no prefix.
    wchar_t prefix[kCchSubkeyPrefixMax + 1];
    CopyBounded(prefix, kCchSubkeyPrefixMax + 1, copy, pos ? pos - 1 : 0);

    wchar_t rewritten[kCchSubkeyBuffer];
    FormatBounded(rewritten, kCchSubkeyBuffer, "%ls\\%ls%ls", prefix,
                  controlSetName ? controlSetName : L"",
                  copy + pos + (sizeof(kControlSetToken) / sizeof(wchar_t) - 1));

    KW_INFO("ConfigRuleParse::TranslateSubkey", "TranslateSubkey old=%ls New= %ls",
            rule.RegSubkey.c_str(), rewritten);
    rule.RegSubkey = rewritten;
    return true;
}

void ConfigRuleParse::PRINTF_REGRULE(const RegRule& rule) const {
    const char* fn = "ConfigRuleParse::PRINTF_REGRULE";
    const int checkId = static_cast<int>(rule.CheckID);
    if (rule.RegRootkey == 0) {
        KW_INFO(fn, "parseID:%d FunctionID:%d CheckID:%d ", rule.ParseID, rule.FunctionID, checkId);
    } else if (rule.RegSubkey.empty() || rule.RegValueName.empty()) {
        KW_INFO(fn, "parseID:%d FunctionID:%d CheckID:%d HKEY:%s SubKey:%ls", rule.ParseID,
                rule.FunctionID, checkId, RootKeyText(rule.RegRootkey), rule.RegSubkey.c_str());
    } else if (rule.Parameter1.empty()) {
        KW_INFO(fn, "parseID:%d FunctionID:%d CheckID:%d HKEY:%s SubKey:%ls value:%ls", rule.ParseID,
                rule.FunctionID, checkId, RootKeyText(rule.RegRootkey), rule.RegSubkey.c_str(),
                rule.RegValueName.c_str());
    } else {
        KW_INFO(fn, "parseID:%d FunctionID:%d CheckID:%d HKEY:%s SubKey:%ls value:%ls Parameter1:%ls",
                rule.ParseID, rule.FunctionID, checkId, RootKeyText(rule.RegRootkey),
                rule.RegSubkey.c_str(), rule.RegValueName.c_str(), rule.Parameter1.c_str());
    }
}

void ConfigRuleParse::PRINTF_REGRULE_EX(int index, const RegRule& rule) const {
    const char* fn = "ConfigRuleParse::PRINTF_REGRULE_EX";
    const int checkId = static_cast<int>(rule.CheckID);
    const int cchParameter = static_cast<int>(rule.Parameter1.size());
    if (rule.RegRootkey == 0) {
        if (rule.Parameter1.empty())
            KW_INFO(fn, "[%d]parseID:%d FunctionID:%d CheckID:%d HKEY:0", index, rule.ParseID,
                    rule.FunctionID, checkId);
        else
            KW_INFO(fn, "[%d]parseID:%d FunctionID:%d CheckID:%d HKEY:0 Parameter1:%ls(%d)", index,
                    rule.ParseID, rule.FunctionID, checkId, rule.Parameter1.c_str(), cchParameter);
    } else if (rule.RegSubkey.empty() || rule.RegValueName.empty()) {
        KW_INFO(fn, "[%d]parseID:%d FunctionID:%d CheckID:%d HKEY:%s SubKey:%ls", index, rule.ParseID,
                rule.FunctionID, checkId, RootKeyText(rule.RegRootkey), rule.RegSubkey.c_str());
    } else if (rule.Parameter1.empty()) {
        KW_INFO(fn, "[%d]parseID:%d FunctionID:%d CheckID:%d HKEY:%s SubKey:%ls value:%ls", index,
                rule.ParseID, rule.FunctionID, checkId, RootKeyText(rule.RegRootkey),
                rule.RegSubkey.c_str(), rule.RegValueName.c_str());
    } else {
        KW_INFO(fn, "[%d]parseID:%d FunctionID:%d CheckID:%d HKEY:%s SubKey:%ls value:%ls Parameter1:%ls(%d)",
                index, rule.ParseID, rule.FunctionID, checkId, RootKeyText(rule.RegRootkey),
                rule.RegSubkey.c_str(), rule.RegValueName.c_str(), rule.Parameter1.c_str(),
                cchParameter);
    }
}

}  // namespace kw
