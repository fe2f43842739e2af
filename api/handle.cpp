#include "api/handle.h"

#include <cstring>
#include <memory>

#include "pedigree/ainverse_object.h"
#include "api/fit_object.h"
#include "api/info_object.h"
#include "base/text.h"

namespace tolvan {
namespace {

static_assert(sizeof(HANDLE) == 16 + sizeof(void*), "hosts may look into the record");

/// A copy, since what the host points at may be misaligned, and may be shorter than a handle.
bool read_record(void* const* handle, HANDLE& record) noexcept
{
  std::memcpy(&record.magic, *handle, sizeof record.magic);
  if (record.magic != handle_magic) return false;
  std::memcpy(&record, *handle, sizeof record);
  return true;
}

template <class Object>
void make_record(HandleStatus kind, std::unique_ptr<Object> object, void** handle)
{
  if (object == nullptr) return;
  auto record = std::make_unique<HANDLE>();
  record->type = static_cast<std::int64_t>(kind);
  record->object = object.release();
  *handle = record.release();
}

}  // namespace

HandleStatus handle_status(void* const* handle) noexcept
{
  return decode_handle(handle).status;
}

ERROR_HANDLER* DECODED_HANDLE::errors() const noexcept
{
  if (tlv != nullptr) return &tlv->errors;
  if (ainv != nullptr) return &ainv->errors;
  if (info != nullptr) return &info->errors;
  return nullptr;
}

DECODED_HANDLE decode_handle(void* const* handle) noexcept
{
  HANDLE record;
  if (handle == nullptr || *handle == nullptr) return {};
  if (!read_record(handle, record)) return {.status = HandleStatus::invalid};
  if (record.object == nullptr) return {};
  switch (static_cast<HandleStatus>(record.type)) {
    case HandleStatus::tlv:
      return {.status = HandleStatus::tlv, .tlv = static_cast<TLV_OBJECT*>(record.object)};
    case HandleStatus::ainv:
      return {.status = HandleStatus::ainv, .ainv = static_cast<AINV_OBJECT*>(record.object)};
    case HandleStatus::info:
      return {.status = HandleStatus::info, .info = static_cast<INFO_OBJECT*>(record.object)};
    default:
      return {.status = HandleStatus::unknown};
  }
}

DECODED_HANDLE CHECK_HANDLE(ERROR_HANDLER& eh, void* const* handle, std::string_view argument)
{
  const Frame here{eh, __func__};
  const DECODED_HANDLE decoded = decode_handle(handle);
  if (decoded.errors() == nullptr) {
    eh.error(text("invalid handle for ", argument, ", type = ", static_cast<std::int64_t>(decoded.status)));
  }
  return decoded;
}

void CHECK_OBJECT_POINTER(ERROR_HANDLER& eh, const DECODED_HANDLE& handle)
{
  const Frame here{eh, __func__};
  switch (handle.status) {
    case HandleStatus::tlv:
    case HandleStatus::ainv:
    case HandleStatus::info:
      if (handle.errors() != nullptr) return;
      eh.error(text("unassociated pointer has been supplied for ", XXX_HANDLE_NAME(eh, handle.status)));
      return;
    default:
      eh.error(text("unknown pointer type, type = ", static_cast<std::int64_t>(handle.status)));
  }
}

std::string_view XXX_HANDLE_NAME(ERROR_HANDLER& eh, HandleStatus status, bool short_form)
{
  const Frame here{eh, __func__};
  switch (status) {
    case HandleStatus::invalid:
      return short_form ? "handle_is_invalid" : "an invalid object";
    case HandleStatus::null:
      return short_form ? "handle_is_null" : "a null object";
    case HandleStatus::tlv:
      return short_form ? "handle_for_tlv_object" : "an tlv object";  // sic
    case HandleStatus::ainv:
      return short_form ? "handle_for_ainv_object" : "an ainv object";  // sic
    default:
      return short_form ? "handle_is_unknown" : "an unknown object";
  }
}

void ALLOCATE_HANDLE(ERROR_HANDLER& eh, HandleStatus kind, void** handle)
{
  const Frame here{eh, __func__};
  if (*handle != nullptr) {
    DEALLOCATE_HANDLE(eh, handle);
    if (eh.terminate()) return;
  }
  *handle = nullptr;
  switch (kind) {
    case HandleStatus::tlv:
      make_record(kind, ALLOCATE_TLV_OBJECT(eh), handle);
      return;
    case HandleStatus::ainv:
      make_record(kind, ALLOCATE_AINV_OBJECT(eh), handle);
      return;
    case HandleStatus::info:
      make_record(kind, ALLOCATE_INFO_OBJECT(eh), handle);
      return;
    default:
      eh.internal("Unknown handle");
  }
}

void DEALLOCATE_HANDLE(ERROR_HANDLER& eh, void** handle)
{
  const Frame here{eh, __func__};
  const DECODED_HANDLE decoded = decode_handle(handle);
  switch (decoded.status) {
    case HandleStatus::null:
      return;
    case HandleStatus::invalid:
      eh.internal("Invalid handle");
      return;
    case HandleStatus::tlv:
      delete decoded.tlv;
      break;
    case HandleStatus::ainv:
      delete decoded.ainv;
      break;
    case HandleStatus::info:
      delete decoded.info;
      break;
    default:
      eh.internal("Unknown handle");
      return;
  }
  delete static_cast<HANDLE*>(*handle);
  *handle = nullptr;
}

}  // namespace tolvan
