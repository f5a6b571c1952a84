// FunctionID 3: group-policy logon and start-up scripts. Parameter1 names the
// script kind, a key name inside the policy's scripts key ("Startup",
// "Logon", ...). Two writes matter: one script entry's "Script" value, and
// the policy folder ("FileSysPath") of a whole set of numbered script keys.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "diag/trace.h"
#include "registry/reg_util.h"

namespace kw {

namespace {

const char kFunction[] = "CAnalizyOperate::AnalyzSystemScripts";

// The file a script entry starts: "<folder>\Scripts\<kind>\<script>", or the
// script itself when the policy has no folder. Cut at MAX_PATH - 1 characters.
std::wstring ScriptFilePath(const std::wstring& folder, const std::wstring& kind, const std::wstring& script) {
    if (folder.empty()) return script;
    wchar_t path[MAX_PATH];
    (void)FormatBounded(path, MAX_PATH, "%ls\\Scripts\\%ls\\%ls", folder.c_str(), kind.c_str(), script.c_str());
    return path;
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzSystemScripts(const ANALYZE_ITEM* pAnalizy, const std::wstring& param) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;
    const std::wstring valueName = RecordValueName(pAnalizy);
    const HKEY root = RootKeyHandle(pAnalizy->hRootkey);

    if (EqualsNoCase(valueName, L"Script")) {
        // The policy key is the script key cut at the first '\' after the
        // kind's name and the key name that follows it.
        wchar_t keyBuf[MAX_PATH];
        CopyBounded(keyBuf, MAX_PATH, pAnalizy->szSubkey, kSubkeyChars);
        std::wstring policyKey(keyBuf);
        const size_t at = FindNoCase(policyKey, param);
        const size_t from = at == std::wstring::npos ? std::wstring::npos : at + param.size() + 1;
        const size_t cut = from < policyKey.size() ? policyKey.find(L'\\', from) : std::wstring::npos;
        if (cut == std::wstring::npos) {
            KW_ERROR(kFunction, "no script key below %ls in %ls", param.c_str(), keyBuf);
            return ANALYZ_NOT_HANDLED;
        }
        policyKey.resize(cut);

        std::wstring folder;
        (void)RegReadExpandedString(root, policyKey.c_str(), L"FileSysPath", RecordViewAccess(), folder);

        wchar_t script[MAX_PATH];
        CopyBounded(script, MAX_PATH, RecordDataText(pAnalizy).c_str());
        if (!script[0]) return ANALYZ_NOTHING;

        ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
        if (!entry) return ANALYZ_NO_ENTRY;
        entry->hRootkey = pAnalizy->hRootkey;
        entry->subKey = RecordSubkey(pAnalizy);
        entry->valueName = L"Script";
        entry->valueData = script;
        ParseFillNotify(ScriptFilePath(folder, param, script), std::move(entry), false, nullptr, false);
        return ANALYZ_OK;
    }

    if (EqualsNoCase(valueName, L"FileSysPath")) {
        // The folder changed: every numbered script key below names one file.
        const std::wstring folder = RecordDataText(pAnalizy);
        const std::wstring key = RecordSubkey(pAnalizy);
        CEnumKey keys(root, key.c_str(), KEY_WOW64_64KEY);
        std::wstring name;
        for (DWORD index = 0; keys.Next(index, name); ++index) {
            const std::wstring scriptKey = key + L"\\" + name;
            std::wstring script;
            if (!RegReadExpandedString(root, scriptKey.c_str(), L"Script", RecordViewAccess(), script) ||
                script.empty())
                continue;
            ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
            if (!entry) return ANALYZ_NO_ENTRY;
            entry->hRootkey = pAnalizy->hRootkey;
            entry->subKey = scriptKey;
            entry->valueName = L"Script";
            entry->valueData = script;
            ParseFillNotify(ScriptFilePath(folder, param, script), std::move(entry), false, nullptr, false);
        }
        return ANALYZ_OK;
    }
    return ANALYZ_NOT_HANDLED;
}

}  // namespace kw
