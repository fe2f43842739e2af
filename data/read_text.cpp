#include "data/read_text.h"
namespace tolvan {
void L_READ_TEXT_FILE(ERROR_HANDLER& eh, const JsonNode&, VARIABLE_TABLE&, LEVEL_CODING&, DATA_STORE&)
{
  const Frame here{eh, __func__};
  eh.not_implemented("the key data_file is not implemented");
}
}  // namespace tolvan
