// The four commands. Each returns the exit status: 0 when everything is right, 1 after a report.
#pragma once

#include <string>

#include "options.h"

namespace dedup {

int store(const std::string& repository, const std::string& source, const Options& options);
int restore(const std::string& repository, const std::string& snapshot, const std::string& target,
            const Options& options);
int verify(const std::string& repository, const Options& options);
int list(const std::string& repository, const Options& options);

}  // namespace dedup
