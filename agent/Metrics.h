#pragma once

// The daemon's state and counters in the Prometheus text format (version 0.0.4), as monitoring
// systems scrape it or node exporter's textfile collector reads it. Names carry the "mkad_" prefix,
// counters end in "_total", times are in seconds; interfaces, CKNs, association numbers and
// channels are labels. It is made from the views mkactl shows, and so holds no key either.

#include <string>

#include <nlohmann/json.hpp>

namespace Macsec {

// From the session view (`show`: the data plane and each interface's session, with the kernel's
// counters of its link) and the MKPDU counters since the start (`counters`).
std::string metricsText(const nlohmann::json& show, const nlohmann::json& counters, const std::string& version);

}  // namespace Macsec
