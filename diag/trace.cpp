#include "diag/trace.h"

#include <atomic>

namespace kw {

namespace {
std::atomic<IHostRuleEngine*> g_sink{nullptr};
const wchar_t kModule[] = L"kwRegAnalyze";
}  // namespace

void SetLogSink(IHostRuleEngine* sink) noexcept { g_sink.store(sink); }
IHostRuleEngine* GetLogSink() noexcept { return g_sink.load(); }

std::wstring ComposeTraceLine(int level, const char* function, const std::wstring& message) {
    std::wstring line;
    line.reserve(message.size() + 64);
    line += L"[";
    line += kModule;
    line += L"][";
    line += (level == TRACE_ERROR) ? L"ERROR" : L"INFO ";
    line += L"][";
    if (function) line += Utf8ToWide(function, strlen(function));
    line += L"] ";
    line += message;
    return line;
}

void TraceText(int level, const char* function, const std::wstring& message) noexcept {
    IHostRuleEngine* sink = g_sink.load();
    if (!sink) return;
    try {
        std::wstring line = ComposeTraceLine(level, function, message);
        sink->WriteLog(line.c_str(), level == TRACE_ERROR ? TRACE_ERROR : TRACE_INFO);
    } catch (...) {
    }
}

void Trace(int level, const char* function, const char* fmt, ...) noexcept {
    if (!g_sink.load()) return;
    try {
        va_list ap;
        va_start(ap, fmt);
        std::wstring msg = FormatWV(fmt, ap);
        va_end(ap);
        TraceText(level, function, msg);
    } catch (...) {
    }
}

}  // namespace kw
