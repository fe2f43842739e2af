#include "base/open_file.h"

#include <filesystem>
#include <system_error>

#include "base/text.h"

namespace tolvan {

std::string why_not_opened(const std::string& name, FileReader& file)
{
  std::error_code ignored;
  // A folder would open, but holds no lines.
  if (std::filesystem::is_directory(name, ignored)) return "it is a folder";
  return file.open(name) ? std::string() : file.error();
}

bool OPEN_AND_CHECK_FILE(ERROR_HANDLER& eh, const std::string& name, FileReader& file)
{
  const Frame here{eh, __func__};
  const std::string reason = why_not_opened(name, file);
  if (reason.empty()) return true;
  eh.error(text("unable to open file ", name), Ecode::io_error);
  eh.continuation(reason);
  return false;
}

bool OPEN_AND_CHECK_FILE(ERROR_HANDLER& eh, const std::string& name, FileWriter& file)
{
  const Frame here{eh, __func__};
  if (file.open(name)) return true;
  eh.error(text("unable to open file ", name), Ecode::io_error);
  eh.continuation(file.error());
  return false;
}

}  // namespace tolvan
