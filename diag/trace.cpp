#include "diag/trace.h"

#include <atomic>
#include <cstdarg>

namespace kw {

namespace {

std::atomic<IHostRuleEngine*> g_sink{nullptr};
const wchar_t kModule[] = L"kwRegAnalyze";

// Lines of the common path are composed on the stack: no heap allocation for
// a line of up to kStackLine - 1 characters with an ASCII function name and
// format. Anything else takes the general path, which writes the same text.
constexpr size_t kStackLine = 1024;

// Writes "[kwRegAnalyze][" level "][" function "] " into line; returns its
// length, or 0 when the function name is not ASCII.
size_t StackPrefix(wchar_t* line, int level, const char* function) noexcept {
    const wchar_t* head = level == TRACE_ERROR ? L"[kwRegAnalyze][ERROR][" : L"[kwRegAnalyze][INFO ][";
    size_t n = 0, fn = 0;
    while (head[n]) line[n] = head[n], ++n;
    if (function && !WidenAscii(line + n, kStackLine - n - 2, function, &fn)) return 0;
    n += fn;
    line[n++] = L']';
    line[n++] = L' ';
    return n;
}

int SinkLevel(int level) { return level == TRACE_ERROR ? TRACE_ERROR : TRACE_INFO; }

bool TraceOnStack(IHostRuleEngine* sink, int level, const char* function, const char* fmt, va_list ap) noexcept {
    wchar_t line[kStackLine];
    const size_t n = StackPrefix(line, level, function);
    if (n == 0 || !FormatBoundedV(line + n, kStackLine - n, fmt, ap)) return false;
    sink->WriteLog(line, SinkLevel(level));
    return true;
}

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
    wchar_t line[kStackLine];
    const size_t n = StackPrefix(line, level, function);
    if (n != 0 && message.size() < kStackLine - n) {
        wmemcpy(line + n, message.c_str(), message.size() + 1);
        sink->WriteLog(line, SinkLevel(level));
        return;
    }
    try {
        std::wstring composed = ComposeTraceLine(level, function, message);
        sink->WriteLog(composed.c_str(), SinkLevel(level));
    } catch (...) {
    }
}

void Trace(int level, const char* function, const char* fmt, ...) noexcept {
    IHostRuleEngine* sink = g_sink.load();
    if (!sink) return;
    va_list ap;
    va_start(ap, fmt);
    const bool done = TraceOnStack(sink, level, function, fmt, ap);
    if (!done) {
        try {
            TraceText(level, function, FormatWV(fmt, ap));
        } catch (...) {
        }
    }
    va_end(ap);
}

}  // namespace kw
