// FunctionID 18: a class's default verb. The record is a write of the default
// value of a class's "shell" key, which names the verb run on a double click;
// the program of that verb's command is the target.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "registry/reg_util.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzFileAssociation(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    std::wstring verb = RecordDataText(pAnalizy);
    if (verb.empty()) verb = L"open";  // no default named: the shell runs "open"
    const std::wstring commandKey = RecordSubkey(pAnalizy) + L"\\" + verb + L"\\command";

    // The command is read whole, however long; only string data counts.
    std::wstring command;
    DWORD type = REG_NONE;
    if (!RegReadRawText(RootKeyHandle(pAnalizy->hRootkey), commandKey.c_str(), nullptr, RecordViewAccess(), &type,
                        command) ||
        (type != REG_SZ && type != REG_EXPAND_SZ))
        command.clear();
    command.resize(LenBounded(command.c_str(), command.size()));
    if (command.empty()) return ANALYZ_NOTHING;

    ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = commandKey;
    entry->valueData = command;
    ParseFillNotify(command, std::move(entry), false, nullptr, true);
    return ANALYZ_OK;
}

}  // namespace kw
