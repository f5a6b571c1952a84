// FunctionID 2: installed components set up once per user. Parameter1 is the
// key under which the components are registered; each component key is named
// by a CLSID and may hold a "StubPath" command.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "diag/trace.h"
#include "registry/clsid_string.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzInsatlledComponents(const ANALYZE_ITEM* pAnalizy, const std::wstring& param) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    wchar_t keyBuf[MAX_PATH];
    CopyBounded(keyBuf, MAX_PATH, pAnalizy->szSubkey, kSubkeyChars);
    wchar_t dataBuf[MAX_PATH];
    CopyBounded(dataBuf, MAX_PATH, RecordDataText(pAnalizy).c_str());

    // The component key lies directly below the rule's key.
    const std::wstring key(keyBuf);
    const size_t at = FindNoCase(key, param);
    const size_t sep = at == std::wstring::npos ? std::wstring::npos : at + param.size();
    if (sep >= key.size() || key[sep] != L'\\') {
        KW_ERROR("CAnalizyOperate::AnalyzInsatlledComponents", "no component key below %ls in %ls", param.c_str(),
                 keyBuf);
        return ANALYZ_NOT_HANDLED;
    }
    const std::wstring component = key.substr(sep + 1);

    switch (pAnalizy->dwOperate) {
        case REGMONMODE_OPERATE_ADDKEY:
        case REGMONMODE_OPERATE_MODIFYKEY: {
            if (!IsClsidString(component.c_str())) return ANALYZ_NOTHING;
            ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
            if (!entry) return ANALYZ_NO_ENTRY;
            entry->hRootkey = pAnalizy->hRootkey;
            entry->subKey = key;
            ResolveClsidAndPush(std::move(entry), component);
            return ANALYZ_OK;
        }
        case REGMONMODE_OPERATE_MODIFYVALUE:
            if (EqualsNoCase(RecordValueName(pAnalizy), L"StubPath") && dataBuf[0])
                return RunAnalyzer(5, pAnalizy, std::wstring());
            return ANALYZ_NOT_HANDLED;
        default:
            return ANALYZ_NOT_HANDLED;
    }
}

}  // namespace kw
