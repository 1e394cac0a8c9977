// The kinds of call that are measured: to our daemon, to the floor and to the peers.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/bus/connection.h"

struct Kind {
  std::string name;            // "service.call"
  const char* service;         // the bus name
  std::size_t fill;            // percent of our registry that must be full, 0 if it does not matter
  const char* reply;           // signature of the reply
  std::size_t divisor;         // slow calls are made less often by this factor
  std::vector<Message> calls;  // made in turn
};

/// All kinds; the services' names must have owners.
std::vector<Kind> AllKinds();

/// Puts the same 500 settings into the peers.
void PreparePeers(Connection& connection);

/// Makes our registry that full, of keys of about 32 bytes.
void Fill(Connection& connection, std::size_t percent);
