// A sorted pedigree kept between runs: L_AIPEDA_READ_PEDIGREE_INFO_FROM_FILE,
// L_AIPEDA_WRITE_PEDIGREE_INFO_TO_FILE.
//
// The file is little-endian: int64 magic, version, n, groups, flags; n records of int64 s, int64 d, double F,
// double level, int32 sex (1 male, 2 female, 0 none); n labels, each an int32 length and its bytes; the name
// of the pedigree file in the same way, its size and its time (int64); a hash of all that.
#include <bit>
#include <cmath>
#include <cstring>

#include "base/files.h"
#include "base/memory.h"
#include "base/text.h"
#include "pedigree/pedigree_file.h"

namespace tolvan {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::int64_t magic = 0x4445504E564C4F54;  // TOLVNPED
constexpr std::int64_t version = 1;
constexpr std::int64_t record_bytes = 3 * 8 + 8 + 4;
constexpr std::int64_t has_sex = 1, has_level = 2;
constexpr int key_bits_from = 2;  // above the flags: a hash of the keys

std::string cache_of(const PEDIGREE_KEYS& keys)
{
  const std::size_t slash = keys.path.find_last_of('/');
  return (slash == std::string::npos ? std::string() : keys.path.substr(0, slash + 1)) + "ainverse.bin";
}

/// FNV-1a, over bytes behind others.
constexpr std::uint64_t hash_of_nothing = 14695981039346656037ULL;
std::uint64_t hash_more(std::uint64_t hash, std::string_view bytes)
{
  for (const char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  return hash;
}

/// A number that differs, but for a rare accident, where other keys or another file of data sort or trim the
/// same lines in another way.
std::int64_t key_bits(const PEDIGREE_KEYS& k)
{
  int switches = 0;
  for (const bool each : {k.comma_separated, k.repeat, k.alpha, k.upper_case, k.sex_linked, k.grandsire, k.inbred, k.sort})
    switches = 2 * switches + (each ? 1 : 0);
  const std::string all = text(switches, " ", k.skip, " ", k.skip_fields, " ", k.groups, " ", k.group_offset, " ",
                               k.level.value_or(-1.0), " ", k.bee, " ", k.selfing, " ", k.trim, " ", file_size(k.trim), " ",
                               file_time(k.trim));
  const std::uint64_t hash = hash_more(hash_of_nothing, all);
  constexpr std::uint64_t positive = 0x7FFFFFFFFFFFFFFFULL;
  return static_cast<std::int64_t>(hash << key_bits_from & positive);
}

/// The bytes of a file, taken from the front; what is not there reads as 0 and leaves sound false.
struct BYTES {
  std::string_view left;
  bool sound = true;

  template <class T>
  T take()
  {
    T x{};
    sound = sound && left.size() >= sizeof x;
    if (!sound) return T{};
    std::memcpy(&x, left.data(), sizeof x);
    left.remove_prefix(sizeof x);
    return x;
  }
  std::string_view take_text()
  {
    const auto length = static_cast<std::size_t>(take<std::uint32_t>());
    sound = sound && left.size() >= length;
    if (!sound) return {};
    const std::string_view out = left.substr(0, length);
    left.remove_prefix(length);
    return out;
  }
};

template <class T>
void put(std::string& to, T x)
{
  char bytes[sizeof x];
  std::memcpy(bytes, &x, sizeof x);
  to.append(bytes, sizeof x);
}

void put_text(std::string& to, std::string_view s)
{
  put(to, static_cast<std::uint32_t>(s.size()));
  to += s;
}

/// Takes the rows; false where a parent does not stand ahead of its progeny or a value is none.
bool take_rows(BYTES& bytes, std::int64_t n, std::int64_t flags, PEDIGREE& p, std::vector<double>& inbreeding)
{
  for (std::int64_t k = 0; k < n && bytes.sound; ++k) {
    const auto male = bytes.take<std::int64_t>();
    const auto female = bytes.take<std::int64_t>();
    const auto F = bytes.take<double>();
    const auto level = bytes.take<double>();
    const auto sex = bytes.take<std::int32_t>();
    const bool parents = male >= 0 && male <= k && female >= 0 && female <= k && (k >= p.groups || male + female == 0);
    if (!parents || !std::isfinite(F) || !std::isfinite(level) || sex < 0 || sex > 2) return false;
    p.id.push_back(static_cast<std::int32_t>(k));
    p.male.push_back(static_cast<std::int32_t>(male));
    p.female.push_back(static_cast<std::int32_t>(female));
    if ((flags & has_sex) != 0) p.sex.push_back(sex == 2 ? 1.0 : 0.0);
    if ((flags & has_level) != 0) p.level.push_back(level);
    inbreeding.push_back(F);
  }
  return bytes.sound;
}

}  // namespace

bool L_AIPEDA_READ_PEDIGREE_INFO_FROM_FILE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE& pedigree,
                                           std::vector<std::string>& labels, std::vector<double>& inbreeding)
{
  const Frame here{eh, __func__};
  const std::string path = cache_of(keys);
  bool sound = false;
  const bool room = attempt([&] {
    std::string contents, error;
    if (!file_exists(path) || !read_file(path, contents, error)) return;
    BYTES bytes{contents};
    if (bytes.take<std::int64_t>() != magic || bytes.take<std::int64_t>() != version) return;
    const auto n = bytes.take<std::int64_t>();
    pedigree.groups = bytes.take<std::int64_t>();
    const auto flags = bytes.take<std::int64_t>();
    const std::int64_t most = std::ssize(contents) / record_bytes;
    if (n < 1 || n > most || pedigree.groups != keys.groups || pedigree.groups > n ||
        (flags & ~(has_sex | has_level)) != key_bits(keys) || ((flags & has_sex) != 0) != keys.sex_linked ||
        ((flags & has_level) != 0) != keys.levels() || !take_rows(bytes, n, flags, pedigree, inbreeding))
      return;
    for (std::int64_t k = 0; k < n && bytes.sound; ++k) labels.emplace_back(bytes.take_text());
    const std::string_view source = bytes.take_text();
    const auto size = bytes.take<std::int64_t>();
    const auto time = bytes.take<std::int64_t>();
    const std::string_view before(contents.data(), contents.size() - bytes.left.size());
    const auto hash = bytes.take<std::uint64_t>();
    sound = bytes.sound && hash == hash_more(hash_of_nothing, before) && bytes.left.empty() &&
            source == keys.path && size == file_size(keys.path) && time == file_time(keys.path);
  });
  if (!room) eh.out_of_memory();
  if (sound) {
    eh.note(text("delete ", path, " if you need the !TRIM/SORT action to be repeated"));
    return true;
  }
  pedigree = {};
  labels.clear();
  inbreeding.clear();
  return false;
}

void L_AIPEDA_WRITE_PEDIGREE_INFO_TO_FILE(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE& pedigree,
                                          const std::vector<std::string>& labels,
                                          const std::vector<double>& inbreeding)
{
  const Frame here{eh, __func__};
  constexpr std::size_t chunk = std::size_t{1} << 16;
  FileWriter file;
  std::string out;
  std::uint64_t hash = hash_of_nothing;
  const auto flush = [&](std::size_t above) {
    if (out.size() <= above) return;
    file.write(out);
    hash = hash_more(hash, out);
    out.clear();
  };
  const bool room = attempt([&] {
    file.open(cache_of(keys));
    const std::int64_t flags =
        key_bits(keys) + (pedigree.sex.empty() ? 0 : has_sex) + (pedigree.level.empty() ? 0 : has_level);
    for (const std::int64_t each : {magic, version, pedigree.rows(), pedigree.groups, flags}) put(out, each);
    for (std::size_t k = 0; k < pedigree.id.size(); ++k, flush(chunk)) {
      put(out, static_cast<std::int64_t>(pedigree.male[k]));
      put(out, static_cast<std::int64_t>(pedigree.female[k]));
      put(out, inbreeding[k]);
      put(out, pedigree.level.empty() ? 0.0 : pedigree.level[k]);
      put(out, static_cast<std::int32_t>(pedigree.sex.empty() ? 0 : pedigree.sex[k] == 0.0 ? 1 : 2));
    }
    for (const std::string& label : labels) {
      put_text(out, label);
      flush(chunk);
    }
    put_text(out, keys.path);
    put(out, file_size(keys.path));
    put(out, file_time(keys.path));
    flush(0);
    put(out, hash);
    flush(0);
  });
  if (!room) return eh.out_of_memory();
  file.commit();
}

}  // namespace tolvan
