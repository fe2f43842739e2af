#include "api/ainverse_object.h"

#include "base/text.h"

namespace tolvan {

std::unique_ptr<AINV_OBJECT> ALLOCATE_AINV_OBJECT(ERROR_HANDLER& eh)
{
  const Frame here{eh, __func__};
  return std::make_unique<AINV_OBJECT>();
}

void AINV_STORE_JSTR(ERROR_HANDLER& eh, AINV_OBJECT& object, std::string_view json)
{
  const Frame here{eh, __func__};
  object.document = json;
}

void AINV_CHECK(ERROR_HANDLER& eh, const AINV_OBJECT& object)
{
  const Frame here{eh, __func__};
  if (is_blank(object.document)) {
    eh.error("no information on the pedigree has been supplied");
    return;
  }
  eh.not_implemented("the inverse of a pedigree's relationship matrix (AINV) is not implemented");
}

void AINV_PROCESS(ERROR_HANDLER& eh, AINV_OBJECT& object)
{
  const Frame here{eh, __func__};
  AINV_CHECK(eh, object);
}

}  // namespace tolvan
