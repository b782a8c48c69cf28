#pragma once

// What the daemon tells its operators about a running engine, as JSON with names in the style of
// the OpenConfig MACsec model: each configured interface's session, and each interface's MKPDU
// counters. No key, nor anything derived from one, is ever part of it; the data plane in use is
// part of every interface's entry, so that no view can be read as protection it is not.

#include <nlohmann/json.hpp>

#include "agent/ConfigFile.h"
#include "agent/MacsecKernel.h"
#include "agent/SessionHistory.h"
#include "engine/Engine.h"

namespace Macsec {

// The session of one interface the configuration names; `present` says whether the kernel has
// the interface yet. What the daemon saw of it lately, and the kernel's counters of its MACsec link,
// where there are some.
nlohmann::json interfaceReport(const Engine& engine, const Lanx::IntfId& intf, bool present, DataPlane plane,
                               const SessionHistory::Interface* history, const MacsecLinkCounters* kernel);

// The port's 802.1X authentication: its side and where it stands, who the peer proved to be, when
// it was authenticated and will be again, the last failure, and what crossed the port.
nlohmann::json authenticationReport(const Dot1x::PaePortStatus& pae);

// The RADIUS servers of the configuration: where each is, whether it is up, the round trip of its
// last answer, and its counters.
nlohmann::json radiusServersReport(const Dot1x::PaeStatusDir& paes,
                                   const std::map<std::string, RadiusServerConfig>& servers);

// A key chain: the key in use, by its CKN, and the next rollover.
nlohmann::json keyChainReport(const std::string& name, const KeyChain& chain, double now);

// What the data plane does, for the head of every view.
nlohmann::json dataPlaneReport(DataPlane plane);

// One interface's MKPDU counters, each refusal by its reason: since they were last cleared, or
// since the start, as monitoring expects counters to run.
nlohmann::json countersReport(const Engine& engine, const Lanx::IntfId& intf, bool sinceCleared = true);

}  // namespace Macsec
