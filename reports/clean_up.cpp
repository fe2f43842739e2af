#include "reports/clean_up.h"

#include <array>
#include <filesystem>
#include <string>

#include "base/text.h"

namespace tolvan {
namespace {

// The whole family of extensions; the fifth is passed over, so that saved parameters survive.
constexpr std::array<std::string_view, 16> extensions = {"csv", "tv",  "tvk", "tlv", "msv", "res",
                                                         "rsv", "sln", "tmp", "tsv", "veo", "vvp",
                                                         "xml", "yht", "log", "aov"};
constexpr std::size_t saved_parameters = 4;
// Files that are this engine's alone.
constexpr std::array<std::string_view, 4> own_extensions = {"tvs", "kcv", "cii", "vrb"};
static_assert(extensions[saved_parameters] == "msv");

/// A file that is not there or that cannot be deleted is none of our business; a folder stays.
void delete_file(const std::string& name)
{
  std::error_code ignored;
  const std::filesystem::path path(name);
  if (std::filesystem::is_regular_file(path, ignored)) std::filesystem::remove(path, ignored);
}

}  // namespace

void CLEAN_TMP_FILES(ERROR_HANDLER& eh, std::string_view root)
{
  const Frame here{eh, __func__};
  for (std::size_t k = 0; k < extensions.size(); ++k) {
    if (k != saved_parameters) delete_file(text(root, ".", extensions[k]));
  }
  for (const std::string_view extension : own_extensions) delete_file(text(root, ".", extension));
  delete_file("fort.19");
  delete_file("fort.7");
}

}  // namespace tolvan
