#include "support/checks.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/text.h"

namespace tolvan {

namespace {

bool is_near(double a, double b, double rel, double abs)
{
  const double difference = std::abs(a - b);
  return a == b || difference <= abs || difference <= rel * std::max(std::abs(a), std::abs(b));
}

}  // namespace

testing::AssertionResult near(double a, double b, double rel, double abs)
{
  if (is_near(a, b, rel, abs)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << text(a, " and ", b, " differ by ", std::abs(a - b), ", relative ",
                                             std::abs(a - b) / std::max(std::abs(a), std::abs(b)));
}

testing::AssertionResult near(const std::vector<double>& a, const std::vector<double>& b, double rel,
                              double abs)
{
  if (a.size() != b.size()) return testing::AssertionFailure() << text("sizes ", a.size(), " and ", b.size());
  std::size_t worst = a.size();
  std::size_t faults = 0;
  for (std::size_t k = 0; k < a.size(); ++k) {
    if (is_near(a[k], b[k], rel, abs)) continue;
    ++faults;
    if (worst == a.size() || !(std::abs(a[k] - b[k]) <= std::abs(a[worst] - b[worst]))) worst = k;
  }
  if (faults == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << text(faults, " of ", a.size(), " elements; the worst is [", worst,
                                             "]: ", a[worst], " and ", b[worst]);
}

std::string messages_text(const ERROR_HANDLER& eh)
{
  std::string out;
  for (const ERROR_MESSAGE& each : eh.messages()) {
    const std::string code = each.ecode == Ecode::not_set ? "-" : text(static_cast<std::int64_t>(each.ecode));
    out += text(each.terminate ? "!" : "", static_cast<std::int64_t>(each.etype), "/", code, " ",
                each.message.value_or("(no text)"), "\n");
  }
  return out;
}

testing::AssertionResult clean(const ERROR_HANDLER& eh)
{
  if (eh.count() > 0 || eh.terminate())
    return testing::AssertionFailure() << "messages held:\n" << messages_text(eh);
  if (eh.stack().mode == 0) return testing::AssertionFailure() << "the routine stack was switched off";
  if (!eh.stack().entries.empty()) {
    return testing::AssertionFailure() << "the routine stack still holds " << eh.stack().entries.back();
  }
  return testing::AssertionSuccess();
}

testing::AssertionResult has_message(const ERROR_HANDLER& eh, std::string_view words)
{
  for (const ERROR_MESSAGE& each : eh.messages()) {
    if (each.message && each.message->find(words) != std::string::npos) return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "\"" << words << "\" is in none of the messages:\n"
                                     << messages_text(eh);
}

TempFolder::TempFolder()
{
  std::string pattern = (std::filesystem::temp_directory_path() / "tolvan_test_XXXXXX").string();
  if (::mkdtemp(pattern.data()) != nullptr) folder_ = pattern;
}

TempFolder::~TempFolder()
{
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

std::string TempFolder::path(std::string_view name) const
{
  return text(folder_, "/", name);
}

std::string TempFolder::file(std::string_view name, std::string_view contents) const
{
  std::ofstream(path(name), std::ios::binary) << contents;
  return path(name);
}

}  // namespace tolvan
