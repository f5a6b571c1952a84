// logprobelib.dll: the file log writer in a module that can be unloaded.
// Its configuration comes from beside the process's executable, like the
// plug-in's.
#include "diag/log_writer.h"
#include "diag/log_writer_state.h"

extern "C" __declspec(dllexport) void LogProbeWrite(const wchar_t* text) {
    kw::FileLog("logprobe", "LogProbe::Main", 86, "%ls", text);
}

extern "C" __declspec(dllexport) void LogProbeStop() { kw::StopLogWriter(); }

// Holds the writer: lines stay queued until a stop or the end of the process.
extern "C" __declspec(dllexport) void LogProbeHold() {
    if (kw::GetLogWriter() && kw::GetLogWriterState()) kw::GetLogWriterState()->HoldWriter(true);
}
