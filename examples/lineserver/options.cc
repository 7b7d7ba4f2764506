#include "options.h"

#include <kel/iprange.h>
#include <kel/logging.h>
#include <kel/options.h>

#include <cerrno>
#include <climits>
#include <filesystem>

#include "key.h"
#include "protocol.h"

namespace lineserver {
namespace {

// Where the parser puts the values; strings are freed at the end of read_options().
char* config;
char* repository;
char* key_file;
uint16_t port;
char* allowed_peers;
uint32_t most_peers;
uint32_t idle_seconds;
char* pid_folder;
uint64_t log_size;
bool foreground;

constexpr char kSection[] = "LineServer";
constexpr uint32_t kMostPeers = 10'000;
constexpr uint32_t kMostSeconds = 24 * 60 * 60;

opt_t config_option = {nullptr,
                       'c',
                       "config",
                       OPT_INIFILE,
                       "FILE",
                       nullptr,
                       nullptr,
                       nullptr,
                       0,
                       &config,
                       "An INI file with values for the options below, and with the log settings."};
opt_t repository_option = {nullptr,
                           'r',
                           "repository",
                           OPT_PATH,
                           nullptr,
                           nullptr,
                           kSection,
                           "Repository",
                           OPT_MANDATORY,
                           &repository,
                           "The repository of kel-dedup whose chunks are asked for."};
opt_t key_file_option = {nullptr,
                         'k',
                         "key-file",
                         OPT_PATH,
                         nullptr,
                         nullptr,  // set_defaults()
                         kSection,
                         "KeyFile",
                         0,
                         &key_file,
                         "The file that protects the key of the repository."};
opt_t port_option = {nullptr,
                     'p',
                     "port",
                     OPT_NUMBER16,
                     nullptr,
                     kDefaultPort,
                     kSection,
                     "Port",
                     0,
                     &port,
                     "The TCP port; 0 lets the system choose, see the log."};
opt_t peers_option = {nullptr,
                      0,
                      "allowed-peers",
                      OPT_TEXT,
                      "IPRANGE",
                      "127.0.0.0/8",
                      kSection,
                      "AllowedPeers",
                      0,
                      &allowed_peers,
                      "IPv4 ranges of the peers that may ask; nobody comes by IPv6 then. An empty "
                      "text, on the command line, lets in everybody."};
opt_t most_peers_option = {nullptr,
                           0,
                           "max-peers",
                           OPT_NUMBER32,
                           nullptr,
                           "64",
                           kSection,
                           "MaxPeers",
                           0,
                           &most_peers,
                           "How many are served at a time; others are told to come later."};
opt_t idle_option = {nullptr,
                     0,
                     "idle-timeout",
                     OPT_NUMBER32,
                     "SECONDS",
                     "60",
                     kSection,
                     "IdleTimeout",
                     0,
                     &idle_seconds,
                     "A peer that sends no whole line for so long is sent away."};
opt_t pid_option = {nullptr,
                    0,
                    "pid-dir",
                    OPT_PATH,
                    nullptr,
                    "/run",
                    kSection,
                    "PidDir",
                    0,
                    &pid_folder,
                    "Where kel-lineserver.pid is, which keeps a second copy out."};
opt_t log_size_option = {nullptr,
                         0,
                         "log-size",
                         OPT_SIZE64,
                         nullptr,
                         "16MiB",
                         kSection,
                         "LogSize",
                         0,
                         &log_size,
                         "A log file of this size is renamed and a new one begun."};
opt_t foreground_option = {
    nullptr, 'f',         "foreground",           OPT_SET, nullptr, nullptr, nullptr, nullptr,
    0,       &foreground, "Stay at the terminal."};
opt_t* table[] = {&config_option,   &repository_option, &key_file_option, &port_option,
                  &peers_option,    &most_peers_option, &idle_option,     &pid_option,
                  &log_size_option, &foreground_option, nullptr};

/// The default that depends on the user, whose text the table refers to.
void set_defaults() {
  static const std::string usual_key_file = dedup::default_key_file();
  if (!usual_key_file.empty()) key_file_option.default_value = usual_key_file.c_str();
}

bool refuse(const char* what) {
  ErrorA(EINVAL, "%s", what);
  return false;
}

/// Sets up the log as the file says; false after a report.
bool read_log_settings(LogTarget& log) {
  log.flags = KEL_LOG_LONG;
  if (config != nullptr && *config != '\0') {
    char path[PATH_MAX];
    const int flags =
        kelLogLoadA(config, kSection, "LogPath", path, sizeof path, "lineserver.log", nullptr);
    if (flags == -1) return false;
    log = {path, flags};
  }
  kelLogSetProcessMaxSize(log_size);
  log.use();
  return true;
}

bool take_values(Options& options) {
  if (repository == nullptr || *repository == '\0')
    return refuse("name a repository with --repository");
  if (key_file == nullptr || *key_file == '\0')
    return refuse("name the key file of the repository with --key-file");
  if (!NetCheckIPRange(allowed_peers, nullptr, true)) return false;
  if (most_peers < 1 || most_peers > kMostPeers)
    return refuse("--max-peers must be from 1 to 10000");
  if (idle_seconds < 1 || idle_seconds > kMostSeconds)
    return refuse("--idle-timeout must be from a second to a day");
  options = {std::filesystem::absolute(repository),
             std::filesystem::absolute(key_file),
             port,
             allowed_peers,
             most_peers,
             idle_seconds,
             pid_folder,
             foreground,
             {}};
  return read_log_settings(options.log);
}

}  // namespace

void LogTarget::use() const { kelLogSet(path.empty() ? nullptr : path.c_str(), flags, 0); }

bool read_options(int argc, char** argv, Options& options) {
  set_defaults();
  const int first = opt_parse(table, argc, argv);
  const bool read = first >= 0 && (first == argc || refuse("there are options only"));
  const bool taken = read && take_values(options);
  opt_free(table);
  return taken;
}

void print_options(std::FILE* out, const char* program, int argc, char** argv) {
  set_defaults();
  opt_fprintf_help(out, program, argc, argv, table, "");
  opt_free(table);
}

}  // namespace lineserver
