// Analyzers that take the written value itself (its data, its pieces or its
// name) as a command line or file path: FunctionIDs 5, 20, 19, 14 and 1.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "diag/trace.h"
#include "registry/reg_util.h"
#include "resolve/expand_path.h"
#include "resolve/parse_text.h"

namespace kw {

namespace {

bool IsValueWrite(const ANALYZE_ITEM* p) {
    return p && p->dwOperate == REGMONMODE_OPERATE_MODIFYVALUE;
}

std::wstring ValueName(const ANALYZE_ITEM* p) {
    return std::wstring(p->szValuename, LenBounded(p->szValuename, kValueNameChars));
}

std::wstring Subkey(const ANALYZE_ITEM* p) {
    return std::wstring(p->szSubkey, LenBounded(p->szSubkey, kSubkeyChars));
}

bool ContainsNoCase(const std::vector<std::wstring>& list, const std::wstring& s) {
    for (const auto& x : list)
        if (EqualsNoCase(x, s)) return true;
    return false;
}

}  // namespace

// Makes an entry for one piece of the record and hands it to ParseFillNotify.
// False only when the entry cannot be allocated.
#define KW_REPORT_PIECE(piece, scriptStep)                                              \
    do {                                                                               \
        ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);                            \
        if (!entry) return ANALYZ_NO_ENTRY;                                            \
        entry->hRootkey = pAnalizy->hRootkey;                                          \
        entry->subKey = Subkey(pAnalizy);                                              \
        entry->valueName = ValueName(pAnalizy);                                        \
        entry->valueData = (piece);                                                    \
        ParseFillNotify((piece), std::move(entry), false, nullptr, (scriptStep));      \
    } while (0)

uint32_t CAnalizyOperate::AnalyzRegvalueAsFilePath(const ANALYZE_ITEM* pAnalizy) {
    KW_INFO("CAnalizyOperate::AnalyzRegvalueAsFilePath", "Start AnalyzRegvalueAsFilePath FunctionID=5");
    if (!IsValueWrite(pAnalizy)) return ANALYZ_NOT_HANDLED;
    const std::wstring data = RecordDataText(pAnalizy);
    if (data.empty()) return ANALYZ_NOTHING;
    KW_REPORT_PIECE(data, true);
    return ANALYZ_OK;
}

uint32_t CAnalizyOperate::AnalyzRegvalueNameAsFilePath(const ANALYZE_ITEM* pAnalizy) {
    KW_INFO("CAnalizyOperate::AnalyzRegvalueNameAsFilePath", "Start AnalyzRegvalueNameAsFilePath FunctionID=20");
    if (!IsValueWrite(pAnalizy)) return ANALYZ_NOT_HANDLED;
    const std::wstring name = ValueName(pAnalizy);
    if (name.empty()) return ANALYZ_NOTHING;
    KW_REPORT_PIECE(name, true);
    return ANALYZ_OK;
}

uint32_t CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByVLine(const ANALYZE_ITEM* pAnalizy) {
    KW_INFO("CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByVLine",
            "Start AnalyzRegvalueSpliteAsFilePathByVLine FunctionID=19");
    if (!IsValueWrite(pAnalizy)) return ANALYZ_NOT_HANDLED;
    for (const std::wstring& piece : SplitAny(RecordDataText(pAnalizy), L"|"))
        KW_REPORT_PIECE(piece, true);
    return ANALYZ_OK;
}

uint32_t CAnalizyOperate::AnalyzMulitRegValueAsFilePath(const ANALYZE_ITEM* pAnalizy) {
    KW_INFO("CAnalizyOperate::AnalyzMulitRegValueAsFilePath", "Start AnalyzMulitRegValueAsFilePath FunctionID=14");
    if (!IsValueWrite(pAnalizy)) return ANALYZ_NOT_HANDLED;

    std::wstring oldRaw;
    DWORD oldType = REG_NONE;
    RegReadRawText(RootKeyHandle(pAnalizy->hRootkey), pAnalizy->szSubkey, pAnalizy->szValuename,
                   RecordViewAccess(), &oldType, oldRaw);
    if (oldRaw.size() > 32768) oldRaw.resize(32768);
    const std::vector<std::wstring> before = SplitMultiString(oldRaw);

    uint32_t cb = pAnalizy->dwDataSize > kDataBytes ? kDataBytes : pAnalizy->dwDataSize;
    std::wstring newRaw(reinterpret_cast<const wchar_t*>(pAnalizy->data), cb / sizeof(wchar_t));
    for (const std::wstring& s : SplitMultiString(newRaw)) {
        if (!before.empty() && ContainsNoCase(before, s) && !m_bReportAll) continue;
        KW_REPORT_PIECE(s, false);
    }
    return ANALYZ_OK;
}

uint32_t CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByCharset(const ANALYZE_ITEM* pAnalizy,
                                                                  const std::wstring& lpsplit) {
    KW_INFO("CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByCharset",
            "Start AnalyzRegvalueSpliteAsFilePathByCharset FunctionID=1,||lpsplit=%ls(len=%u)||",
            lpsplit.c_str(), static_cast<unsigned>(lpsplit.size()));
    if (!IsValueWrite(pAnalizy)) return ANALYZ_NOT_HANDLED;

    // The previous data, in the record's view; expandable data is expanded
    // the way the record's new data was, so both sides compare alike.
    std::wstring oldData;
    DWORD oldType = REG_NONE;
    if (RegReadRawText(RootKeyHandle(pAnalizy->hRootkey), pAnalizy->szSubkey, pAnalizy->szValuename,
                       RecordViewAccess(), &oldType, oldData)) {
        if (oldData.size() > 520) oldData.resize(520);
        oldData.resize(LenBounded(oldData.c_str(), oldData.size()));
        if (oldType == REG_EXPAND_SZ && pAnalizy->dsid != 76 && pAnalizy->dsid != 77) {
            wchar_t buf[511] = {0};
            CopyBounded(buf, 511, oldData.c_str());
            ExpandPath(buf, sizeof(buf), m_hToken.get(), m_szSid, bWow64Expand);
            oldData = buf;
        } else if (oldType != REG_SZ && oldType != REG_EXPAND_SZ) {
            oldData.clear();
        }
    }
    KW_INFO("CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByCharset", "reg old data: %ls", oldData.c_str());

    std::wstring newData = RecordDataText(pAnalizy);
    if (newData.empty()) return ANALYZ_NOTHING;
    if (EqualsNoCase(ValueName(pAnalizy), L"Appinit_Dlls")) {
        ReplaceAll(oldData, L"*", L".");
        ReplaceAll(newData, L"*", L".");
    }
    const std::vector<std::wstring> before = SplitAny(oldData, lpsplit.c_str());
    for (const std::wstring& piece : SplitAny(newData, lpsplit.c_str())) {
        if (!m_bReportAll && ContainsNoCase(before, piece)) continue;
        KW_REPORT_PIECE(piece, true);
    }
    return ANALYZ_OK;
}

#undef KW_REPORT_PIECE

}  // namespace kw
