// The analysis bridge: a host registry request becomes an analysis record,
// the engine analyses it under its rule, and the files found go back to the
// host as deep-scan targets.
#include "analyze/analysis_record.h"
#include "common/strutil.h"
#include "diag/trace.h"
#include "plugin/plug_deep_scan.h"
#include "plugin/request_text.h"
#include "plugin/transform_reg_path.h"

#include <list>
#include <memory>
#include <new>

namespace kw {

IHostTarget* CPlugDeepScan::GetTarget(IHostRuleEngine* ruleEng) {
    IHostTarget* target = ruleEng ? ruleEng->GetTarget() : nullptr;
    if (!target)
        KW_ERROR("CPlugDeepScan::GetTarget", "GetTarget error: ruleEng=%x",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(ruleEng)));
    return target;
}

bool CPlugDeepScan::AddTarget(IHostTarget* target, const wchar_t* path) {
    if (!target || !path) return false;
    KW_INFO("CPlugDeepScan::AddTarget", "AddTarget: add  path:%ls ", path);
    target->AddTarget(path, 8, 0);
    return true;
}

uint32_t CPlugDeepScan::GetAnalyzeId(IHostTarget* pTarget) {
    if (!pTarget) {
        KW_ERROR("CPlugDeepScan::GetAnalyzeId", "GetAnalyzeId fail pTarget=nullptr");
        return 0;
    }
    uint32_t value = 0;
    unsigned long size = sizeof(value);
    unsigned long ret = pTarget->GetProperty(3, &value, &size);
    if (ret != 0) {
        KW_ERROR("CPlugDeepScan::GetAnalyzeId", "GetAnalyzeId GetProperty fail ret=0x%X",
                 static_cast<unsigned>(ret));
        return 0;
    }
    return value;
}

bool CPlugDeepScan::FillAnalyzeItem(const KW_REQUEST* req, uint32_t analyzeId, ANALYZE_ITEM* item) {
    if (!req || !item) return false;
    const uint32_t mode = analyzeId >> 16;
    const uint32_t parseId = analyzeId & 0xFFFF;
    item->dsid = parseId;
    memcpy(&item->dwProcessId, &req->Context, sizeof(KW_REG_CONTEXT));
    if (item->dwDataSize > kDataBytes) item->dwDataSize = kDataBytes;

    if (mode != 2) {
        KW_ERROR("CPlugDeepScan::FillAnalyzeItem", "Scan Mode Error,nAnalyzeMode=%u Parseid=%u", mode, parseId);
        return false;
    }
    KW_INFO("CPlugDeepScan::FillAnalyzeItem", "analyze mode=%u, analyze_id=%u", mode, parseId);

    switch (req->Operation) {
        case REQ_OP_KEY_CREATED:
            item->dwOperate = REGMONMODE_OPERATE_ADDKEY;
            break;
        case REQ_OP_KEY_RENAMED:
            item->dwOperate = REGMONMODE_OPERATE_MODIFYKEY;
            break;
        case REQ_OP_VALUE_SET:
            item->dwOperate = REGMONMODE_OPERATE_MODIFYVALUE;
            item->dwValueType = req->Context.ValueType;
            CopyBounded(item->szValuename, kValueNameChars, RequestText(req, req->ValueName).c_str());
            break;
        case REQ_OP_VALUE_DELETED:
            KW_INFO("CPlugDeepScan::FillAnalyzeItem", "Skip OperType  = %s", "VALUE_DELETE");
            return false;
        case REQ_OP_KEY_DELETED:
            KW_INFO("CPlugDeepScan::FillAnalyzeItem", "Skip OperType  = %s", "REG_DELETE");
            return false;
        case REQ_OP_WRITE:
            KW_INFO("CPlugDeepScan::FillAnalyzeItem", "Skip OperType  = REG_WRITE");
            return false;
        default:
            item->dwOperate = 0;
            break;
    }
    KW_INFO("CPlugDeepScan::FillAnalyzeItem", "op=%u, type=%u", item->dwOperate, item->dwValueType);

    uint32_t root = 0;
    const std::wstring keyPath = RequestText(req, req->KeyPath);
    if (!kw::TransformRegPath(req->KeyPath ? keyPath.c_str() : nullptr, &root, item->szSubkey, kSubkeyChars)) {
        KW_INFO("CPlugDeepScan::FillAnalyzeItem", "TransformRegPath Fail");
        return false;
    }
    item->hRootkey = root;
    KW_INFO("CPlugDeepScan::FillAnalyzeItem", "root key=%x, sub key=%ls, valuename=%ls", root,
            item->szSubkey, item->szValuename);
    return true;
}

bool CPlugDeepScan::HandleRdEvent(const KW_REQUEST* req, IHostRuleEngine* ctx) {
    if (!req || !ctx) {
        KW_ERROR("CPlugDeepScan::HandleRdEvent", "Invalid Parameter");
        return false;
    }
    if (!autoRunImpl) {
        KW_ERROR("CPlugDeepScan::HandleRdEvent", "autoRunImpl == nullptr");
        return false;
    }
    IHostTarget* target = GetTarget(ctx);
    // The record is large (5 KiB): on the heap, not on a host thread's stack.
    std::unique_ptr<ANALYZE_ITEM> item(new (std::nothrow) ANALYZE_ITEM());
    if (!item) return false;
    memset(item.get(), 0, sizeof(ANALYZE_ITEM));
    item->dwSize = kAnalyzeItemSize;
    if (!FillAnalyzeItem(req, GetAnalyzeId(target), item.get())) {
        KW_ERROR("CPlugDeepScan::HandleRdEvent", "FillAnalyzeItem Fail");
        return false;
    }
    std::list<std::wstring> files;
    if (autoRunImpl->AnalyzeFiles(item.get(), &files) == 0) {
        for (const std::wstring& path : files)
            if (!path.empty()) AddTarget(target, path.c_str());
    }
    // Its effect is the targets it added.
    return false;
}

unsigned long CPlugDeepScan::PostProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ctx) noexcept {
    try {
        KW_INFO("CPlugDeepScan::PostProcessEvent", "CPlugDeepScan::PostProcessEvent enter");
        if (!pEvent) return 0;
        KW_DRV_EVENT* drv = pEvent->GetDriverEvent();
        KW_REQUEST* req = drv ? &drv->Request : nullptr;
        if (!req) return 0;
        KW_INFO("CPlugDeepScan::PostProcessEvent", "Class=%d(rd=2)", static_cast<int>(req->Class));
        if (req->Class == RCLASS_REGISTRY && ctx) {
            HandleRdEvent(req, ctx);
            TransformEventRegPath(pEvent);
        }
    } catch (...) {
        // Nothing escapes to the host; the event simply yields no more targets.
    }
    return 0;
}

}  // namespace kw
