// The topology file (INI): system, ports, trunks, ONUs, service ports and
// routed VLAN interfaces. Format: docs/oltsim.md.
#pragma once

#include <string>

#include "sim/sim_model.h"

// Loads path into out. On failure returns false and err reads
// "<file>:<line>: [<section>] <key>: <what is wrong>".
bool sim_topology_load(const std::string &path, sim_model &out, std::string &err);
