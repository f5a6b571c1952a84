// The trace channel: every line goes to the host's rule-engine object (slot 20)
// as "[kwRegAnalyze][" level "][" function "] " message, level 50 ("INFO ") or
// 31 ("ERROR"). Nothing is written while no log sink is set. The function name
// is passed explicitly in its qualified form ("CPlugDeepScan::Init").
#pragma once
#include "common/host_iface.h"
#include "common/strutil.h"

#include <string>

namespace kw {

enum TraceLevel : int { TRACE_INFO = 50, TRACE_ERROR = 31 };

// The process-wide sink: set by the plug-in's Init, read without a lock.
void SetLogSink(IHostRuleEngine* sink) noexcept;
IHostRuleEngine* GetLogSink() noexcept;

// Formats and sends one line. Never throws; an allocation failure drops the line.
void Trace(int level, const char* function, const char* fmt, ...) noexcept KW_PRINTF(3, 4);
// Sends a message that is already text (no format processing).
void TraceText(int level, const char* function, const std::wstring& message) noexcept;

// The full line as the host receives it (exposed for tests of the layout).
std::wstring ComposeTraceLine(int level, const char* function, const std::wstring& message);

}  // namespace kw

#define KW_INFO(func, ...) ::kw::Trace(::kw::TRACE_INFO, func, __VA_ARGS__)
#define KW_ERROR(func, ...) ::kw::Trace(::kw::TRACE_ERROR, func, __VA_ARGS__)
