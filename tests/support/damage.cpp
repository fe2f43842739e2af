#include "support/damage.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace tolvan {

bool write_over(const std::string& path, std::string_view bytes)
{
  std::FILE* file = std::fopen(path.c_str(), "r+b");
  if (file == nullptr) file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  if (std::fclose(file) != 0 || !written) return false;
  std::error_code failed;
  std::filesystem::resize_file(path, bytes.size(), failed);
  return !failed;
}

std::string changed_at_random(std::string bytes, std::string_view letters, std::mt19937& random)
{
  for (auto changes = random() % 5 + 1; changes > 0; --changes) {
    if (bytes.empty()) bytes = "1";
    const std::size_t at = random() % bytes.size();
    const char letter = letters[random() % letters.size()];
    switch (random() % 5) {
      case 0:
        bytes[at] = letter;
        break;
      case 1:
        bytes.insert(at, 1, letter);
        break;
      case 2:
        bytes.erase(at, random() % 4 + 1);
        break;
      case 3:
        bytes.insert(random() % bytes.size(), bytes.substr(at, random() % 30));
        break;
      default:
        bytes[at] = static_cast<char>(random() % 256);
        break;
    }
  }
  return bytes;
}

bool lines_are_told(const ERROR_HANDLER& eh)
{
  constexpr std::string_view line = ", attempting to read line ";
  for (const ERROR_MESSAGE& each : eh.messages()) {
    const std::string message = each.message.value_or("");
    if (!message.starts_with("unable to read from ")) continue;
    const std::size_t at = message.rfind(line);
    if (at == std::string::npos) continue;
    const std::size_t number = at + line.size();
    if (number == message.size() || message[number] < '1' || message[number] > '9') return false;
  }
  return true;
}

}  // namespace tolvan
