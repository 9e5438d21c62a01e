// Loading a package for a subcommand, with the reader's messages and ours.
#pragma once

#include <memory>
#include <string>

#include "qim/package.h"

namespace qimtool {

struct PackageDeleter {
    void operator()(qim_package* p) const { qim_package_free(p); }
};
using PackagePtr = std::unique_ptr<qim_package, PackageDeleter>;

// Loads `path`; on failure the reader has printed its own message and this
// adds "qimtool <sub>: cannot load <path>: <error text>". Null on failure.
PackagePtr load_package(const char* sub, const std::string& path);

}  // namespace qimtool
