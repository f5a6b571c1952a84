// The plug-in object the host drives through IKwRulePlug. Init creates the
// analysis engine, the path translator and the file-event bridge; they live
// until the module unloads (UnInit and ReleasePlugObjectV2 free none of them).
#pragma once
#include "common/host_iface.h"
#include "plugin/host_ref.h"
#include "plugin/kw_autorun_impl.h"
#include "plugin/reg_key_translate.h"
#include "plugin/rule_analyze.h"
#include "analyze/analysis_record.h"

#include <memory>
#include <string>

namespace kw {

class CPlugDeepScan : public IKwRulePlug {
public:
    CPlugDeepScan() noexcept = default;
    ~CPlugDeepScan() = default;

    bool Init(IHostRuleEngine* ruleEng, const char* configContent,
              unsigned long configContentLength) noexcept override;
    void UnInit() noexcept override;
    void SetEnable(unsigned long a, unsigned long b) noexcept override;
    unsigned long FirstProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept override;
    unsigned long PreProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept override;
    unsigned long PostProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept override;
    unsigned long LastProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept override;
    bool AfterProcessEvent(unsigned long a, unsigned long b, unsigned long c) noexcept override;

    // Translates key into its user-level form for the process's user
    // (CRegKeyTranslate::Translate, at most 1023 characters); out receives
    // the translated text whatever the result. Traces the old and new key and
    // the time taken. False when key is null, there is no translator or the
    // translation failed. (Inside members this name hides the free path form
    // TransformRegPath(path, rootKey*, subKey*): call that one as kw::TransformRegPath.)
    bool TransformRegPath(DWORD processId, const wchar_t* key, std::wstring& out);

    // Rewrites the key path (and, for a rename, the new key path) of the
    // event's registry request into the user-level form, as fresh copies on
    // the process heap; the old string is freed unless it lives in the
    // request's inline storage or still held by another of the request's
    // string fields. Strings in the inline storage are read at most to its
    // end. Error lines "pEvent == nullptr" and
    // "pReq == nullptr"; true for every request that could be reached.
    bool TransformEventRegPath(IHostEvent* pEvent) noexcept;

    // The file half of event intake (plugin/file_event.cpp). The file a file
    // request ends with: its path, or for a rename its destination (traced);
    // empty, with a trace, for a null or non-file request.
    static std::wstring GetOrgDstFile(const KW_REQUEST* req);

    // The registry half of event intake and the analysis bridge.
    // The target object of the event being processed (slot 21 of the host's
    // context); traces "GetTarget error: ruleEng=%x" when there is none.
    static IHostTarget* GetTarget(IHostRuleEngine* ruleEng);
    // Adds one deep-scan target (slot 3, kind 8, flags 0); false for nulls.
    static bool AddTarget(IHostTarget* target, const wchar_t* path);
    // The analysis id (property 3: high 16 bits mode, low 16 bits ParseID), 0 on failure.
    static uint32_t GetAnalyzeId(IHostTarget* pTarget);
    // Fills the analysis record from a registry request; false (with its
    // trace) for another analysis mode, a skipped operation or an unknown root.
    static bool FillAnalyzeItem(const KW_REQUEST* req, uint32_t analyzeId, ANALYZE_ITEM* item);
    // Analyses one registry request and adds the files found as targets.
    // Always false: its effect is the targets it added.
    bool HandleRdEvent(const KW_REQUEST* req, IHostRuleEngine* ruleEng);

    // Destroys the object as the host's interface sees it (the base part
    // only) and frees its storage. The engine, translator, host reference and
    // bridge are deliberately left alive: they live until the module unloads.
    static void DestroyAsBase(CPlugDeepScan* obj) noexcept;

    CKwAutoRunImpl* autoRunImpl = nullptr;       // owned; lives until the module unloads
    CRegKeyTranslate* regKeyTranslate = nullptr; // owned; lives until the module unloads
    HostRuleEngineRef ruleEng;
    std::shared_ptr<CRuleAnalyze> ruleAnalyze;
};

}  // namespace kw
