#include "options.h"

#include <kel/logging.h>
#include <kel/options.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "key.h"
#include "log_files.h"

namespace dedup {
namespace {

// Where the parser puts the values; it is done with them, and its strings are freed, at the end of
// read_options().
char* config;
uint32_t chunk_size;
char* compression;
char* key_file;
bool quiet;
bool json;
char* remote_url;
char* remote_certificate;
char* remote_key;
char* remote_authority;

constexpr char kMaking[] = "Making a repository";
constexpr char kRemote[] = "A copy on a server";

opt_t config_option = {.group = "General",
                       .short_name = 'c',
                       .long_name = "config",
                       .type = OPT_INIFILE,
                       .metavar = "FILE",
                       .default_value = nullptr,
                       .ini_section = nullptr,
                       .ini_key = nullptr,
                       .flags = 0,
                       .value = &config,
                       .help =
                           "An INI file with values for the options below, and with a section "
                           "[Logging] for log files."};
opt_t chunk_size_option = {.group = kMaking,
                           .short_name = 0,
                           .long_name = "chunk-size",
                           .type = OPT_SIZE32,
                           .metavar = nullptr,
                           .default_value = "16KiB",
                           .ini_section = "Repository",
                           .ini_key = "ChunkSize",
                           .flags = 0,
                           .value = &chunk_size,
                           .help =
                               "The usual size of chunks, a power of two from 1KiB to 1MiB. "
                               "Smaller ones find more that is the same, larger ones are "
                               "fewer. A repository keeps the size that it was made with."};
opt_t compression_option = {.group = kMaking,
                            .short_name = 0,
                            .long_name = "compression",
                            .type = OPT_TEXT,
                            .metavar = "lzo|zlib|none",
                            .default_value = "lzo",
                            .ini_section = "Repository",
                            .ini_key = "Compression",
                            .flags = 0,
                            .value = &compression,
                            .help = "How chunks are compressed; kept likewise."};
opt_t key_file_option = {.group = "General",
                         .short_name = 'k',
                         .long_name = "key-file",
                         .type = OPT_PATH,
                         .metavar = nullptr,
                         .default_value = nullptr,  // set_defaults()
                         .ini_section = "Repository",
                         .ini_key = "KeyFile",
                         .flags = 0,
                         .value = &key_file,
                         .help =
                             "The file that protects the keys of repositories. It lies outside "
                             "of them, and is made with the first repository."};
opt_t quiet_option = {.group = "General",
                      .short_name = 'q',
                      .long_name = "quiet",
                      .type = OPT_SET,
                      .metavar = nullptr,
                      .default_value = nullptr,
                      .ini_section = nullptr,
                      .ini_key = nullptr,
                      .flags = 0,
                      .value = &quiet,
                      .help = "No line of progress on a terminal."};
opt_t json_option = {.group = "Listing",
                     .short_name = 0,
                     .long_name = "json",
                     .type = OPT_SET,
                     .metavar = nullptr,
                     .default_value = nullptr,
                     .ini_section = nullptr,
                     .ini_key = nullptr,
                     .flags = 0,
                     .value = &json,
                     .help = "Snapshots are listed as JSON, for other programs."};
opt_t remote_url_option = {.group = kRemote,
                           .short_name = 0,
                           .long_name = "remote",
                           .type = OPT_TEXT,
                           .metavar = "URL",
                           .default_value = nullptr,
                           .ini_section = "Remote",
                           .ini_key = "URL",
                           .flags = 0,
                           .value = &remote_url,
                           .help =
                               "The folder https://HOST/... of a copy: store brings it up to date, "
                               "the others fetch from it what REPO is missing."};

opt_t remote_file(const char* name, const char* ini_key, char** value, const char* help) {
  return {.group = kRemote,
          .short_name = 0,
          .long_name = name,
          .type = OPT_PATH,
          .metavar = nullptr,
          .default_value = nullptr,
          .ini_section = "Remote",
          .ini_key = ini_key,
          .flags = 0,
          .value = value,
          .help = help};
}
opt_t remote_certificate_option = remote_file("remote-cert", "Certificate", &remote_certificate,
                                              "The client certificate, a PEM file.");
opt_t remote_key_option = remote_file("remote-key", "Key", &remote_key, "Its key.");
opt_t remote_authority_option =
    remote_file("remote-ca", "CA", &remote_authority,
                "The certificates that the server's is checked with, instead of those that the "
                "system trusts.");

opt_t* table[] = {&config_option,
                  &key_file_option,
                  &chunk_size_option,
                  &compression_option,
                  &quiet_option,
                  &json_option,
                  &remote_url_option,
                  &remote_certificate_option,
                  &remote_key_option,
                  &remote_authority_option,
                  nullptr};

/// The default that depends on the user, whose text the table refers to.
void set_defaults() {
  static const std::string usual_key_file = default_key_file();
  if (!usual_key_file.empty()) key_file_option.default_value = usual_key_file.c_str();
}

/// Takes over what the parser stored; false after a report.
bool take_values(Options& options) {
  if (!is_chunk_size(chunk_size)) {
    ErrorA(EINVAL, "chunks cannot have %u bytes; name a power of two from 1KiB to 1MiB",
           chunk_size);
    return false;
  }
  const auto known_compression = find_compression(compression);
  if (!known_compression) return false;
  if (key_file == nullptr || *key_file == '\0') {
    ErrorA(ENOENT, "there is no HOME to find the key file in; name one with --key-file");
    return false;
  }
  const auto text = [](const char* value) { return std::string(value == nullptr ? "" : value); };
  options = {
      {chunk_size, *known_compression},
      key_file,
      quiet,
      json,
      {text(remote_url), text(remote_certificate), text(remote_key), text(remote_authority)}};
  return set_up_log(config);
}

/// Moves the options in front of the words, in which they may stand anywhere before "--". False
/// after a report.
bool move_options_forward(int argc, char** argv) {
  int front = 1;
  for (int at = 1; at < argc;) {
    opt_t* option;
    const char* text;
    const int count = opt_identify(table, argc - at, argv + at, &option, &text);
    if (count == -3) {  // "--" goes before the words too
      std::rotate(argv + front, argv + at, argv + at + 1);
      return true;
    }
    if (count == 0 || count == -1) return false;
    if (count > 0) {
      std::rotate(argv + front, argv + at, argv + at + count);
      front += count;
    }
    at += std::max(count, 1);
  }
  return true;
}

}  // namespace

int read_options(int argc, char** argv, Options& options) {
  set_defaults();
  if (!move_options_forward(argc, argv)) return -1;
  int first = opt_parse(table, argc, argv);
  if (first >= 0 && !take_values(options)) first = -1;
  opt_free(table);
  return first;
}

void print_options(std::FILE* out, const char* program, int argc, char** argv) {
  set_defaults();
  opt_fprintf_help(out, program, argc, argv, table, "COMMAND REPO ...");
  opt_free(table);
}

}  // namespace dedup
