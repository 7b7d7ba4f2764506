// Features that are switched by their number in the plug-in's settings.
#include <kel/inifile.h>
#include <kel/probes.h>

#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "config/probes.h"
#include "internal/report.h"

using namespace kel::internal;
using namespace kel::config;

int FeatureToggle::GetFeatureToggleValue(char* key, int* value) {
  if (key == nullptr || value == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  trace_plugin_directory();
  if (::access(kPluginSettingsFile, R_OK) != 0) return -1;
  char text[256];
  const int found =
      InifileGetValueA(INIFILE_TOP_SECTION, key, text, sizeof text, "", kPluginSettingsFile);
  if (found == 0 || text[0] == '\0') return fail_quietly(-1, ENOENT);
  char* end;
  const int number = number_in(text, &end);
  if (*end != '\0') return fail_quietly(-1, EINVAL);
  *value = number;
  return 0;
}

bool FeatureToggle::IsFeatureEnabledByID(int* id) {
  if (id == nullptr) return fail(false, EINVAL, "%s: invalid NULL parameter", __func__);
  char key[33];
  const unsigned magnitude = *id < 0 ? 0U - static_cast<unsigned>(*id) : static_cast<unsigned>(*id);
  *std::to_chars(key, key + sizeof key - 1, magnitude).ptr = '\0';
  int value;
  if (GetFeatureToggleValue(key, &value) != 0) return *id >= 0;
  return value == 1;
}

int IsPELKFeatureEnabled_c(int id) {
  if (id == 0 || id == 1) return id;
  return FeatureToggle::IsFeatureEnabledByID(&id) ? 1 : 0;
}
