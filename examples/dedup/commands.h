// The four commands. Each returns the exit status: 0 when everything is right, 1 after a report.
#pragma once

#include <string>

namespace dedup {

int store(const std::string& repository, const std::string& source);
int restore(const std::string& repository, const std::string& snapshot, const std::string& target);
int verify(const std::string& repository);
int list(const std::string& repository);

}  // namespace dedup
