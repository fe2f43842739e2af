// Formula text, in either dialect, into canonical form and term nodes.  The first byte chooses the dialect and the part.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "model/formula_nodes.h"
#include "model/formula_text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  if (size == 0) return 0;
  constexpr std::string_view parts[] = {"response", "fixed", "random", "residual"};
  tolvan::COMMUNICATION communication;
  tolvan::CT_SET_DIALECT(communication, data[0] % 2 == 1);
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  tolvan::ERROR_HANDLER eh;
  tolvan::JsonNode part(tolvan::JsonType::object);
  tolvan::API_FORMULA_STRING_TO_JPTR(eh, communication, &part, text, parts[data[0] / 2 % 4]);
  if (!eh.stack().entries.empty()) std::abort();
  for (const auto& message : eh.messages())
    if (message.etype == tolvan::Etype::internal) std::abort();
  return 0;
}
