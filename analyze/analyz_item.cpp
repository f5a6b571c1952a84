// AnalyzItem: the record checks, the per-record context, the path check
// against the rule and the one trace line written for every analysed record.
#include "analyze/analizy_operate.h"

#include "analyze/reg_path_match.h"
#include "common/strutil.h"
#include "registry/user_sid.h"
#include "diag/log_writer.h"
#include "diag/trace.h"
#include "registry/reg_util.h"
#include "resolve/expand_path.h"
#include "resolve/wow64.h"
#include "rules/config_rule_parse.h"

#include <algorithm>

namespace kw {

CAnalizyOperate::CAnalizyOperate() noexcept = default;

std::wstring RecordDataText(const ANALYZE_ITEM* pAnalizy) {
    if (!pAnalizy) return std::wstring();
    const wchar_t* text = reinterpret_cast<const wchar_t*>(pAnalizy->data);
    return std::wstring(text, LenBounded(text, kDataBytes / sizeof(wchar_t)));
}

std::wstring RecordSubkey(const ANALYZE_ITEM* pAnalizy) {
    return std::wstring(pAnalizy->szSubkey, LenBounded(pAnalizy->szSubkey, kSubkeyChars));
}

std::wstring RecordValueName(const ANALYZE_ITEM* pAnalizy) {
    return std::wstring(pAnalizy->szValuename, LenBounded(pAnalizy->szValuename, kValueNameChars));
}

REGSAM CAnalizyOperate::RecordViewAccess() const noexcept {
    if (!GetWow64Helper()->m_bIsWow64) return 0;
    REGSAM sam = 0;
    if (bNativeView) sam |= KEY_WOW64_64KEY;
    if (bWow64Expand) sam |= 0x80000000u;
    return sam;
}

void CAnalizyOperate::BeginRecord(ANALYZE_ITEM* pAnalizy) {
    bWow64Expand = 0;
    bNativeView = 1;
    bWow64Parse = 2;
    ReleaseUserContext();
    m_szSid[0] = L'\0';
    m_pCurrent = pAnalizy;
    m_fileTests.Clear();
    m_parser.SetFileTests(&m_fileTests);
    m_user = GetUserSidByPid(pAnalizy->dwProcessId, m_szSid, 260 /* bytes */);
    m_hToken = m_user ? m_user->token.get() : nullptr;
}

void CAnalizyOperate::EndRecord() noexcept {
    ReleaseUserContext();
    m_pCurrent = nullptr;
}

void CAnalizyOperate::ReleaseUserContext() noexcept {
    m_hToken = nullptr;
    m_user.reset();
}

namespace {

bool IsStringType(uint32_t type) {
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_LINK || type == REG_MULTI_SZ;
}

// The sub-key with '/' made '\' and doubled separators folded, for the
// Wow6432Node test.
std::wstring NormalisedSubkey(const ANALYZE_ITEM* pAnalizy) {
    std::wstring s(pAnalizy->szSubkey, LenBounded(pAnalizy->szSubkey, kSubkeyChars - 1));
    for (auto& c : s)
        if (c == L'/') c = L'\\';
    while (ReplaceAll(s, L"\\\\", L"\\")) {
    }
    return s;
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzItem(ANALYZE_ITEM* pAnalizy, std::set<std::wstring>& resultSet,
                                     const RegRule& rule) noexcept {
    // 1. Records this engine cannot handle are refused silently.
    if (!pAnalizy || pAnalizy->dwSize < kAnalyzeItemSize) return ANALYZ_NOT_HANDLED;
    if ((pAnalizy->dwOperate == REGMONMODE_OPERATE_MODIFYVALUE ||
         pAnalizy->dwOperate == REGMONMODE_OPERATE_DELVALUE) &&
        !IsStringType(pAnalizy->dwValueType))
        return ANALYZ_NOT_HANDLED;

    try {
        // 2. and 3. Native view unless the key lies under Wow6432Node (below);
        // the acting user.
        BeginRecord(pAnalizy);

        // 4. The record's trace line starts here; it is written once, at the end.
        pAnalizy->szSubkey[kSubkeyChars - 1] = L'\0';
        pAnalizy->szValuename[kValueNameChars - 1] = L'\0';
        // Room for both terminated fields and the fixed words: never cut.
        wchar_t head[kSubkeyChars + kValueNameChars + 128];
        FormatBounded(head, sizeof(head) / sizeof(head[0]),
                      " [regscan] ||dsid:%lu||op:%s||regpath:%ls%ls\\[%ls]||filepath:",
                      static_cast<unsigned long>(pAnalizy->dsid), OperateTraceWord(pAnalizy->dwOperate),
                      RootKeyTracePrefix(pAnalizy->hRootkey), pAnalizy->szSubkey, pAnalizy->szValuename);
        std::wstring trace;
        trace.reserve(wcslen(head) + 2 * MAX_PATH);
        trace = head;

        // 5. A Wow6432Node key on a 64-bit system: 32-bit registry and file views.
        if (GetWow64Helper()->m_bIsWow64) {
            HKEY root = RootKeyHandle(pAnalizy->hRootkey);
            if (root && IsWow6432NodePath(root, NormalisedSubkey(pAnalizy).c_str())) {
                bNativeView = 0;
                bWow64Parse = 1;
                bWow64Expand = 1;
            }
        }

        // 6. Wide text in the data field is always terminated.
        memset(pAnalizy->data + kDataBytes - 4, 0, 4);

        // 7. Environment tokens of expandable data, for the acting user. The
        // rules 76 and 77 keep their unexpanded text on purpose.
        if (pAnalizy->dwOperate == REGMONMODE_OPERATE_MODIFYVALUE &&
            pAnalizy->dwValueType == REG_EXPAND_SZ && pAnalizy->dsid != 76 && pAnalizy->dsid != 77) {
            ExpandPath(reinterpret_cast<wchar_t*>(pAnalizy->data), 1022, m_hToken, m_szSid,
                       bWow64Expand);
        }

        // 8.
        m_results.clear();
        ConfigRuleParse().PRINTF_REGRULE(rule);

        // 9. The context stays with this object on this path; its destructor
        // releases it.
        if (!RegPathMatch(pAnalizy, rule)) {
            KW_ERROR("CAnalizyOperate::AnalyzItem", "RegPathMatch Fail");
            return ANALYZ_NOT_HANDLED;
        }

        // 10.
        uint32_t ret = HandOutRegParse(pAnalizy, rule);

        // 11.
        for (const ResultEntry& e : m_results) {
            resultSet.insert(ToUpper(e.filePath));
            trace += e.filePath;
            trace += L";";
        }

        // 12. '%' would be read as a format by log readers: written as '$'.
        wchar_t tail[32];
        FormatBounded(tail, 32, "||ret:%lu", static_cast<unsigned long>(ret));
        trace += tail;
        std::replace(trace.begin(), trace.end(), L'%', L'$');
        TraceText(TRACE_INFO, "CAnalizyOperate::AnalyzItem", trace);
        FileLogIfOpen("AnalizyOperate", "CAnalizyOperate::AnalyzItem", 1918, "%ls", trace.c_str());

        // 13.
        if (!m_results.empty() && ret != ANALYZ_OK)
            KW_ERROR("CAnalizyOperate::AnalyzItem", "Analyz ret error");

        // 14.
        EndRecord();
        return ret;
    } catch (...) {
        // Out of memory while analysing: the record yields what was found so far.
        EndRecord();
        return ANALYZ_NO_ENTRY;
    }
}

bool CAnalizyOperate::RegPathMatch(const ANALYZE_ITEM* pAnalizy, const RegRule& rule) {
    if (!pAnalizy) return false;
    const wchar_t* valueName = rule.bValueName ? rule.RegValueName.c_str() : nullptr;
    switch (rule.CheckID) {
        case 0:
            return true;
        case 1:
            if (rule.RegSubkey.empty() || (rule.bValueName && rule.RegValueName.empty())) return false;
            return TestRegKeyPathName(pAnalizy, rule.RegRootkey, rule.RegSubkey, valueName);
        case 2:
            if (rule.RegSubkey.empty() || (rule.bValueName && rule.RegValueName.empty())) return false;
            return TestShortRegKeyPathName(pAnalizy, rule.RegRootkey, rule.RegSubkey, 1, valueName);
        default:
            return false;
    }
}

namespace {

// The record, root-key and pattern checks both key-path tests begin with.
// `name` prefixes each failure line ("TestRegKeyPathName pAnalizy null.").
bool CheckRecordKey(const ANALYZE_ITEM* pAnalizy, uint32_t hKey, const std::wstring& pattern,
                    const char* function, const char* name, std::wstring* subkey) {
    if (!pAnalizy) {
        KW_ERROR(function, "%s pAnalizy null.", name);
        return false;
    }
    if (pAnalizy->hRootkey != hKey) {
        KW_ERROR(function, "%s pAnalizy hRootkey not hKey.", name);
        return false;
    }
    *subkey = RecordSubkey(pAnalizy);
    if (!MatchRegPathPattern(*subkey, pattern)) {
        KW_ERROR(function, "%s pAnalizy szSubkey not invalid.", name);
        return false;
    }
    return true;
}

// The value-name check both tests end with (no name given: always true). The
// names of the default value ("default_null", the empty name) all match each
// other. The line reports a mismatch; its wording is kept as log readers know it.
bool CheckValueName(const ANALYZE_ITEM* pAnalizy, const wchar_t* valueName, const char* function,
                    const char* name) {
    if (!valueName) return true;
    const std::wstring wanted(valueName);
    const std::wstring actual = RecordValueName(pAnalizy);
    if (!EqualsNoCase(wanted, actual) && !(IsDefaultValueName(wanted) && IsDefaultValueName(actual))) {
        KW_ERROR(function, "%s szValuename null.", name);
        return false;
    }
    return true;
}

}  // namespace

bool CAnalizyOperate::TestRegKeyPathName(const ANALYZE_ITEM* pAnalizy, uint32_t hKey,
                                         const std::wstring& pattern, const wchar_t* valueName) {
    static const char kFunction[] = "CAnalizyOperate::TestRegKeyPathName";
    std::wstring subkey;
    return CheckRecordKey(pAnalizy, hKey, pattern, kFunction, "TestRegKeyPathName", &subkey) &&
           CheckValueName(pAnalizy, valueName, kFunction, "TestRegKeyPathName");
}

bool CAnalizyOperate::TestShortRegKeyPathName(const ANALYZE_ITEM* pAnalizy, uint32_t hKey,
                                              const std::wstring& pattern, size_t levels,
                                              const wchar_t* valueName) {
    static const char kFunction[] = "CAnalizyOperate::TestShortRegKeyPathName";
    std::wstring subkey;
    if (!CheckRecordKey(pAnalizy, hKey, pattern, kFunction, "TestShortRegKeyPathName", &subkey)) return false;
    if (levels > 0) {
        size_t end = FindPatternEnd(subkey, pattern, true);
        // A wrapped end position is counted from where it points within the
        // sub-key; one past the text counts no levels.
        const wchar_t* rest = end < subkey.size() ? subkey.c_str() + end : L"";
        if (CountPathLevel(rest) < levels) {
            KW_ERROR(kFunction, "TestShortRegKeyPathName CountPathLevel < 1.");
            return false;
        }
    }
    return CheckValueName(pAnalizy, valueName, kFunction, "TestShortRegKeyPathName");
}

}  // namespace kw
