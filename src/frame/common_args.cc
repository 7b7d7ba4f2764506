// The options that every tool accepts.
#include <kel/library.h>
#include <kel/logging.h>

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "build_info.h"
#include "frame/version.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kCopyrights[] =
    "libkel, foundation library of a deduplicating storage system.\n"
    "Copyright by its authors; see the licences of the libraries that it uses for theirs.\n";

constexpr char kCommonOptions[] =
    "\n\nCommon Options:\n"
    "\t--copyrights     : display applicable copyrights and exit\n"
    "\t--features       : display features and settings\n"
    "\t--os-test        : display OS summary\n"
    "\t--version        : display program version number and exit\n"
    "\t--help           : display this help and exit\n"
    "\t--noversioncheck : Disable verification that this application is linked against the right "
    "version of the KEL library.\n";

constexpr unsigned long kZlibFastest = 0x200000;  // a bit of zlibCompileFlags()

[[noreturn]] void stop() {
  KelLibDestroy();
  std::exit(1);
}

struct Tool {
  const char* name;
  kelUsageFn usage;
  const char* version;
  const char* build_date;
  const char* build_time;
  const char* build_type;
};

void print_features(const Tool& tool) {
  std::printf("Version          : %s-%s\n", tool.version, tool.build_type);
  std::printf("Build Date       : %s, %s\n", tool.build_date, tool.build_time);
  std::printf("libkel Version   : %s-Release\n", kProductVersion);
  std::printf("libkel Build Date: %s, %s\n", KEL_BUILD_DATE, KEL_BUILD_TIME);
  std::printf("Compiler         : %s %i.%i\n", kCompilerName, kCompilerMajor, kCompilerMinor);
  std::printf("Large Files      : Supported (%ibit OS)\n", 64);
  const unsigned long flags = zlibCompileFlags();
  std::printf("Zlib             : version %s, compile flags %08x (FASTEST %senabled)\n",
              zlibVersion(), static_cast<unsigned>(flags),
              (flags & kZlibFastest) != 0 ? "" : "not ");
}

void print_usage(const Tool& tool) {
  std::printf("This is %s, Version %s\n\n", tool.name, kProductVersion);
  std::puts(kCopyrights);
  tool.usage(tool.name);
  std::puts(kCommonOptions);
}

void print_version(const Tool& tool) {
  std::printf("This is %s, Version %s\n", tool.name, tool.version);
}

struct CommonOption {
  std::string_view text;
  void (*act)(const Tool&);
};

constexpr CommonOption kOptions[] = {
    {"--help", print_usage},
    {"--features", print_features},
    {"--os-test", [](const Tool&) { OSTest(nullptr); }},
    {"--version", print_version},
    {"--copyrights", [](const Tool&) { ShowCopyrights(); }},
};

/// Removes the first "--noversioncheck"; whether there was one.
bool take_no_version_check(int* argc, char** argv) {
  if (*argc < 2) return false;
  for (char** argument = argv + 1; *argument != nullptr; ++argument) {
    if (std::strcmp(*argument, "--noversioncheck") != 0) continue;
    for (; *argument != nullptr; ++argument) argument[0] = argument[1];
    --*argc;
    return true;
  }
  return false;
}

}  // namespace

void _checkCommonArgs(int* argc, char** argv, kelUsageFn usage, const char* version,
                      const char* buildDate, const char* buildTime, const char* buildType) {
  const Tool tool = {GetProgramName(argv[0]), usage, version, buildDate, buildTime, buildType};
  if (usage == nullptr || version == nullptr || buildDate == nullptr || buildTime == nullptr ||
      buildType == nullptr) {
    report_error(EINVAL, "%s: invalid NULL parameter", __func__);
    stop();
  }
  if (!take_no_version_check(argc, argv) && !CheckKELVersion(version))
    report_warning(EINVAL, "%s: Version mismatch: %s is version %s while libkel is version %s",
                   __func__, tool.name, version, kProductVersion);
  if (*argc < 2) return;
  for (char** argument = argv + 1; *argument != nullptr; ++argument) {
    const auto* option =
        std::find_if(std::begin(kOptions), std::end(kOptions),
                     [argument](const CommonOption& o) { return o.text == *argument; });
    if (option == std::end(kOptions)) continue;
    option->act(tool);
    stop();
  }
}

void ShowUsage(char** argv, kelUsageFn usage) {
  print_usage({GetProgramName(argv[0]), usage, nullptr, nullptr, nullptr, nullptr});
  stop();
}

void _showVersion(const char* name, const char* version) {
  print_version({name, nullptr, version, nullptr, nullptr, nullptr});
  stop();
}

void _showFeatures(const char* version, const char* buildDate, const char* buildTime,
                   const char* buildType) {
  print_features({nullptr, nullptr, version, buildDate, buildTime, buildType});
  stop();
}

const char* GetProgramName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

int ShowCopyrights(void) { return ShowCopyrights2(stdout); }

int ShowCopyrights2(FILE* stream) { return std::fputs(kCopyrights, stream); }
