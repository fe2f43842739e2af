// A data file in a folder of its own, on the road into the store.
#pragma once

#include <string>
#include <string_view>

#include "base/text.h"
#include "data/data_road.h"

namespace tolvan {

inline constexpr std::string_view three_variables =
    R"("variables":[{"name":"gen","field_type":"vt_string_factor"},
    {"name":"rep","field_type":"vt_integer_factor"},{"name":"yield"}])";

struct FileRoad : DataRoad {
  TempFolder folder;
  std::string file_name = "f.csv";

  /// Writes the file and reads it by a request of the given parts.
  bool read_file(std::string_view contents, std::string_view described = three_variables,
                 std::string_view keys = R"("type":"ft_csv","skip":1)")
  {
    const std::string path = folder.file(file_name, contents);
    return read(
        text(R"({"data_file":{"name":")", path, keys.empty() ? "\"" : "\",", keys, "},", described, "}"));
  }
  /// The messages without the folder's name.
  std::string all_told() const
  {
    std::string all = messages_text(eh);
    const std::string folder_name = folder.path("");
    for (std::size_t at; (at = all.find(folder_name)) != std::string::npos;)
      all.erase(at, folder_name.size());
    return all;
  }
  /// The same without the note about the file that is read.
  std::string told() const
  {
    std::string all = all_told();
    const std::string note = text("1/- reading ", file_name, " ");
    if (const std::size_t at = all.find(note); at != std::string::npos)
      all.erase(at, all.find('\n', at) + 1 - at);
    return all;
  }
};

}  // namespace tolvan
