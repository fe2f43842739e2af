// The handle record that a host holds, and the objects behind it.
// Routines: CHECK_HANDLE, CHECK_OBJECT_POINTER, XXX_HANDLE_NAME, ALLOCATE_HANDLE, DEALLOCATE_HANDLE.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/error_handler.h"

namespace tolvan {

struct TLV_OBJECT;
struct AINV_OBJECT;
struct INFO_OBJECT;

inline constexpr std::int64_t handle_magic = 34252313;

/// What a host's handle points at.  The layout is fixed: two 64-bit integers and a pointer.
struct HANDLE {
  std::int64_t magic = handle_magic;
  std::int64_t type = 0;
  void* object = nullptr;
};

/// What a handle variable turns out to hold; the positive ones are the kinds of object.
enum class HandleStatus : std::int64_t {
  invalid = -999,
  null = -888,
  unknown = 0,
  tlv = 111,
  ainv = 222,
  info = 999
};

/// The status of a handle variable.  Reads no further than the magic of what is no handle; handle itself may
/// be null.
HandleStatus handle_status(void* const* handle) noexcept;

/// A handle taken apart: the pointer of its kind is set, the others are null.
struct DECODED_HANDLE {
  HandleStatus status = HandleStatus::null;
  TLV_OBJECT* tlv = nullptr;
  AINV_OBJECT* ainv = nullptr;
  INFO_OBJECT* info = nullptr;

  /// The error store of the object, null without an object.
  ERROR_HANDLER* errors() const noexcept;
};

DECODED_HANDLE decode_handle(void* const* handle) noexcept;

/// CHECK_HANDLE: decodes a handle and complains unless it leads to an object of a known kind.
DECODED_HANDLE CHECK_HANDLE(ERROR_HANDLER& eh, void* const* handle, std::string_view argument);
/// CHECK_OBJECT_POINTER: complains of a decoded handle of an unknown kind or without its object.
void CHECK_OBJECT_POINTER(ERROR_HANDLER& eh, const DECODED_HANDLE& handle);
/// XXX_HANDLE_NAME: the words for a handle status: "an ainv object", or short "handle_for_ainv_object".
std::string_view XXX_HANDLE_NAME(ERROR_HANDLER& eh, HandleStatus status, bool short_form = false);

/// ALLOCATE_HANDLE: makes an object of a kind with its record; an old handle in the variable is deallocated
/// first.
void ALLOCATE_HANDLE(ERROR_HANDLER& eh, HandleStatus kind, void** handle);
/// DEALLOCATE_HANDLE: frees the object and the record and writes null to the variable, which is left alone
/// when it holds no handle.
void DEALLOCATE_HANDLE(ERROR_HANDLER& eh, void** handle);

}  // namespace tolvan
