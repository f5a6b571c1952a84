// Shared pieces of the end-to-end tests: one plug-in per test program, loaded
// with the rule text below, and helpers that send registry events through
// PostProcessEvent exactly as a monitor would report them.
#pragma once
#include "host_sim.h"
#include "support/fixtures.h"

#include <string>
#include <vector>

namespace e2e {

// Rules used by the end-to-end tests (ParseID -> what it covers).
extern const char* const kRules;

// The process-wide plug-in, created and initialised with kRules on first use.
hostsim::PluginHost& Host();

// Sends one event with the analysis id (mode 2 unless given) and returns the
// targets the host received, in order.
std::vector<std::wstring> Post(hostsim::Event& ev, uint32_t parseId, uint32_t mode = 2);

// A REG_SZ (or other string type) value write as the monitor reports it.
std::vector<std::wstring> PostSz(const std::wstring& keyPath, const std::wstring& valueName,
                                 const std::wstring& data, uint32_t parseId, uint32_t type = REG_SZ);

std::vector<std::wstring> Upper(std::vector<std::wstring> v);

}  // namespace e2e
