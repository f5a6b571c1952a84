// The file half of event intake: a newly written (or renamed) ".inf" or ".lnk"
// file is analysed and the files it refers to go back to the host as targets.
#include "common/strutil.h"
#include "diag/trace.h"
#include "plugin/plug_deep_scan.h"
#include "plugin/request_text.h"

#include <shlwapi.h>

#include <list>

namespace kw {

std::wstring CPlugDeepScan::GetOrgDstFile(const KW_REQUEST* req) {
    static const char kFn[] = "CPlugDeepScan::GetOrgDstFile";
    if (!req || req->Class != RCLASS_FILE) {
        KW_INFO(kFn, "req is null or req->Class is not RCLASS_FILE");
        return std::wstring();
    }
    if (req->Operation == REQ_FILE_RENAMED) {
        // The file now lives under its new name.
        std::wstring dst = RequestText(req, req->RenamePath);
        KW_INFO(kFn, "DstFile=%ls (RenameFileEvent)", dst.c_str());
        KW_INFO(kFn, "RenameEvent DstFile=%ls (FileEvent)", dst.c_str());
        return dst;
    }
    return RequestText(req, req->KeyPath);
}

unsigned long CPlugDeepScan::FirstProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ctx) noexcept {
    static const char kFn[] = "CPlugDeepScan::FirstProcessEvent";
    try {
        KW_INFO(kFn, "CPlugDeepScan::FirstProcessEvent enter");
        if (!pEvent) {
            KW_INFO(kFn, "FirstProcessEvent pEvent is null");
            return 0;
        }
        if (!ctx) {
            KW_INFO(kFn, "FirstProcessEvent ruleEng is null");
            return 0;
        }
        KW_DRV_EVENT* drvEvent = pEvent->GetDriverEvent();
        if (!drvEvent) {
            KW_INFO(kFn, "FirstProcessEvent drvEvent is null");
            return 0;
        }
        const KW_REQUEST* req = &drvEvent->Request;
        if (req->Class != RCLASS_FILE) {
            KW_INFO(kFn, "FirstProcessEvent req is null or req->Class is not RCLASS_FILE");
            return 0;
        }
        const std::wstring path = GetOrgDstFile(req);
        if (path.empty()) {
            KW_INFO(kFn, "FirstProcessEvent dstFile Path is null");
            return 0;
        }

        // The extension is the text from the last dot of the file name.
        const wchar_t* ext = PathFindExtensionW(path.c_str());
        uint32_t sourceKind = 0;
        if (EqualsNoCase(ext, L".inf")) {
            sourceKind = FILE_SOURCE_INF;
            KW_INFO(kFn, "Inf File,start Parse");
        } else if (EqualsNoCase(ext, L".lnk")) {
            sourceKind = FILE_SOURCE_LNK;
            KW_INFO(kFn, "lnk File,start Parse");
        } else {
            return 0;
        }

        std::list<std::wstring> files;
        if (ruleAnalyze) ruleAnalyze->GetTargetFilesEx(drvEvent, sourceKind, path, &files);
        for (const std::wstring& file : files) {
            KW_INFO(kFn, "FirstProcessEvent AnalizyFD 添加deepscan解析的文件：%ls", file.c_str());
            IHostTarget* target = GetTarget(ctx);
            if (!target) continue;
            KW_INFO(kFn, "FirstProcessEvent add to m_target：%ls", file.c_str());
            target->AddTarget(file.c_str(), 8, 0);
        }
    } catch (...) {
        // Nothing escapes to the host; the event simply yields no more targets.
    }
    return 0;
}

}  // namespace kw
