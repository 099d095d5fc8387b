// Several programs at once on one mounted server.
#pragma once

#include "Benchmarks/mount/measurement.hpp"
#include "Benchmarks/mount/mounted_server.hpp"
#include "Benchmarks/mount/request_counter.hpp"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tavelin::bench {

// What measureClients() measures, in the order of the table: each kind of work by 1, 2 and 4
// clients.
std::vector<std::string> clientCategories();

// Has fio work on `server` over `store`, mounted on `directory`, for some seconds a category; what
// a thousand operations of all clients together cost, by category. Throws std::runtime_error when
// the server or an operation fails.
std::map<std::string, Measurement> measureClients(const Server& server,
                                                  const std::filesystem::path& store,
                                                  const std::filesystem::path& directory,
                                                  const RequestCounter& requests, int seconds);

} // namespace tavelin::bench
