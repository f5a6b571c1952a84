// A log sink for unit tests that link the plug-in's code directly: records
// every trace line the way the host would receive it. Header-only, so the
// test support library itself does not depend on the plug-in's code.
#pragma once
#include "common/host_iface.h"

#include <mutex>
#include <string>
#include <vector>

namespace kwtest {

class RecordingSink : public kw::IHostRuleEngine {
public:
    struct Line {
        std::wstring text;
        int level;
    };
    unsigned long AddRef() override { return ++refs; }
    unsigned long Release() override { return --refs; }
#define RS_SLOT(n) void Reserved##n() override {}
    RS_SLOT(3) RS_SLOT(4) RS_SLOT(5) RS_SLOT(6) RS_SLOT(7) RS_SLOT(8) RS_SLOT(9) RS_SLOT(10)
    RS_SLOT(11) RS_SLOT(12) RS_SLOT(13) RS_SLOT(14) RS_SLOT(15) RS_SLOT(16) RS_SLOT(17)
    RS_SLOT(18) RS_SLOT(19)
#undef RS_SLOT
    void WriteLog(const wchar_t* line, int level) override {
        std::lock_guard<std::mutex> g(mu);
        lines.push_back(Line{line ? line : L"", level});
    }
    kw::IHostTarget* GetTarget() override { return target; }

    std::vector<Line> Lines() {
        std::lock_guard<std::mutex> g(mu);
        return lines;
    }
    void Clear() {
        std::lock_guard<std::mutex> g(mu);
        lines.clear();
    }
    // True when a recorded line contains the fragment.
    bool Has(const std::wstring& fragment) {
        std::lock_guard<std::mutex> g(mu);
        for (const auto& l : lines)
            if (l.text.find(fragment) != std::wstring::npos) return true;
        return false;
    }
    // The message part (after "] ") of every line, in order.
    std::vector<std::wstring> Messages() {
        std::lock_guard<std::mutex> g(mu);
        std::vector<std::wstring> out;
        for (const auto& l : lines) {
            size_t p = l.text.find(L"] ", l.text.find(L"][", l.text.find(L"][") + 2) + 2);
            out.push_back(p == std::wstring::npos ? l.text : l.text.substr(p + 2));
        }
        return out;
    }

    long refs = 0;
    kw::IHostTarget* target = nullptr;
    std::mutex mu;
    std::vector<Line> lines;
};

}  // namespace kwtest
