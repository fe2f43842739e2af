#include "api/guard.h"

#include <exception>
#include <new>
#include <stdexcept>

#include "base/text.h"

namespace tolvan {

void report_exception(ERROR_HANDLER& eh) noexcept
{
  try {
    try {
      throw;
    } catch (const std::bad_alloc&) {
      eh.out_of_memory();
    } catch (const std::length_error&) {  // a container longer than any memory
      eh.out_of_memory();
    } catch (const std::exception& exception) {
      eh.internal(text("unexpected exception: ", exception.what()));
    } catch (...) {
      eh.internal("unexpected exception");
    }
  } catch (...) {  // no memory left to tell of the exception
    eh.out_of_memory();
  }
}

}  // namespace tolvan
