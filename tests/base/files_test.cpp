// Files: lines over the edges of the buffer, faults in the system's words, writing that replaces whole files.
#include "base/files.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <set>

#include "base/text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

std::vector<std::string> lines_of(const std::string& path)
{
  FileReader reader;
  std::vector<std::string> lines;
  std::string_view line;
  EXPECT_TRUE(reader.open(path)) << reader.error();
  while (reader.next_line(line)) {
    lines.emplace_back(line);
    EXPECT_EQ(reader.line_number(), static_cast<std::int64_t>(lines.size()));
  }
  EXPECT_EQ(reader.error(), "");
  return lines;
}

TEST(Files, LinesEndInAnyUsualWay)
{
  const TempFolder folder;
  using Lines = std::vector<std::string>;
  EXPECT_EQ(lines_of(folder.file("a", "")), Lines{});
  EXPECT_EQ(lines_of(folder.file("b", "x\r\n\ny")), (Lines{"x", "", "y"}));
  EXPECT_EQ(lines_of(folder.file("c", "\n")), Lines{""});
  EXPECT_EQ(lines_of(folder.file("d", std::string("a\0b\n", 4))), Lines{std::string("a\0b", 3)});
}

TEST(Files, LinesInOtherEncodingsComeAsUtf8)
{
  const TempFolder folder;
  const std::string contents = "plain\ncaf\xC3\xA9\nSm\xF8rg\xE5s \x80\x81\n\xED\xA0\x80\n";
  const std::string path = folder.file("latin", contents);
  EXPECT_EQ(lines_of(path), (std::vector<std::string>{"plain", "caf\xC3\xA9", "Sm\xC3\xB8rg\xC3\xA5s \xE2\x82\xAC\xEF\xBF\xBD",
                                                      "\xC3\xAD\xC2\xA0\xE2\x82\xAC"}));
  FileReader reader;
  std::string_view line;
  ASSERT_TRUE(reader.open(path));
  while (reader.next_line(line)) EXPECT_EQ(reader.first_converted(), reader.line_number() < 3 ? 0 : 3);
  reader.keep_bytes();
  ASSERT_TRUE(reader.open(path));
  std::string kept;
  while (reader.next_line(line)) kept += std::string(line) + "\n";
  EXPECT_EQ(kept, contents);
}

TEST(Files, LinesOfAllLengthsOverTheEdgesOfTheBuffer)
{
  const TempFolder folder;
  std::vector<std::string> lines;
  for (std::size_t n : {1u, 262143u, 262144u, 262145u, 0u, 600000u, 3u}) lines.emplace_back(n, 'x');
  for (std::size_t n = 0; n < 2000; ++n) lines.emplace_back(n % 977, 'y');
  const std::string contents = join(lines, "\n");
  const std::string path = folder.file("long", contents);
  EXPECT_EQ(lines_of(path), lines);
  std::string whole;
  std::string error;
  EXPECT_TRUE(read_file(path, whole, error));
  EXPECT_EQ(whole, contents);
  EXPECT_EQ(file_size(path), static_cast<std::int64_t>(contents.size()));
}

TEST(Files, FaultsAreTold)
{
  const TempFolder folder;
  std::string contents;
  std::string error;
  EXPECT_FALSE(read_file(folder.path("absent"), contents, error));
  EXPECT_EQ(error, "No such file or directory");
  EXPECT_FALSE(read_file(folder.path(""), contents, error));
  EXPECT_EQ(error, "Is a directory");
  const std::string present = folder.file("present", "x");
  EXPECT_FALSE(read_file(present + std::string("\0y", 2), contents, error));
  EXPECT_FALSE(write_file(folder.path("none/x"), "x", error));
  EXPECT_EQ(error, "No such file or directory");
  EXPECT_FALSE(write_file("/dev/full", "x", error));
  EXPECT_EQ(error, "No space left on device");
  EXPECT_FALSE(write_file("", "x", error));
  EXPECT_TRUE(file_exists(present));
  delete_quietly(present);
  delete_quietly(present);
  EXPECT_FALSE(file_exists(present));
  EXPECT_EQ(file_size(present), -1);
}

TEST(Files, AFileIsReplacedWholeOrNotAtAll)
{
  const TempFolder folder;
  const std::string path = folder.file("report", "old");
  const std::string link = folder.path("link");
  std::filesystem::create_symlink(path, link);
  std::string contents;
  std::string error;
  {
    FileWriter writer;
    EXPECT_TRUE(writer.open(path));
    EXPECT_TRUE(writer.write("half"));
  }
  read_file(path, contents, error);
  EXPECT_EQ(contents, "old");
  EXPECT_TRUE(write_file(link, "new", error)) << error;
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  read_file(path, contents, error);
  EXPECT_EQ(contents, "new");
  EXPECT_TRUE(write_file("/dev/null", "x", error));
  EXPECT_FALSE(std::filesystem::is_regular_file("/dev/null"));
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator(folder.path("."))) ++files;
  EXPECT_EQ(files, 2u) << "no neighbours are left";
}

std::set<std::string> names_in(const TempFolder& folder)
{
  std::set<std::string> names;
  for (const auto& each : std::filesystem::directory_iterator(folder.path("."))) names.insert(each.path().filename().string());
  return names;
}

/// Writes to files in a process that is killed while it does; with `shown` their first half stands under their names.
void write_and_be_killed(const std::vector<std::string>& paths, bool shown)
{
  const pid_t child = fork();
  if (child == 0) {
    std::vector<FileWriter> writers(paths.size());
    for (std::size_t i = 0; i < paths.size(); ++i) {
      if (!writers[i].open(paths[i]) || !writers[i].write("half") || (shown && !writers[i].show())) _exit(1);
    }
    std::raise(SIGKILL);
  }
  int how = 0;
  waitpid(child, &how, 0);
  EXPECT_TRUE(WIFSIGNALED(how));
}

TEST(Files, WhatAKilledProcessLeftIsTakenOver)
{
  const TempFolder folder;
  const std::string path = folder.path("f");
  std::string contents, error;
  // Two writers of one name at once keep apart; both were killed.
  write_and_be_killed({path, path}, false);
  EXPECT_EQ(names_in(folder), (std::set<std::string>{"f.part1", "f.part2"}));
  {
    FileWriter one, other;
    ASSERT_TRUE(one.open(path) && one.write("one"));
    EXPECT_EQ(names_in(folder), (std::set<std::string>{"f.part1"}));
    ASSERT_TRUE(other.open(path) && other.write("the other"));
    EXPECT_EQ(names_in(folder), (std::set<std::string>{"f.part1", "f.part2"})) << "what is being written is left alone";
    EXPECT_TRUE(one.commit());
    read_file(path, contents, error);
    EXPECT_EQ(contents, "one");
    EXPECT_TRUE(other.commit());
  }
  read_file(path, contents, error);
  EXPECT_EQ(contents, "the other");

  // A report that was followed: the whole one waits beside it.  It comes back, or goes once there is a new one.
  for (const bool commits : {false, true}) {
    write_and_be_killed({path}, true);
    read_file(path, contents, error);
    EXPECT_EQ(contents, "half");
    EXPECT_EQ(names_in(folder), (std::set<std::string>{"f", "f.earlier1"}));
    {
      FileWriter next;
      ASSERT_TRUE(next.open(path) && next.write("new") && next.show());
      EXPECT_EQ(names_in(folder), (std::set<std::string>{"f", "f.earlier1"}));
      FileWriter another;  // finds the one in place being written, and puts that aside
      ASSERT_TRUE(another.open(path) && another.write("another") && another.show());
      EXPECT_EQ(names_in(folder).size(), 3U);
    }
    write_and_be_killed({path}, true);
    FileWriter last;
    ASSERT_TRUE(last.open(path) && last.write("last") && last.show());
    if (commits) {
      EXPECT_TRUE(last.commit());
    } else {
      EXPECT_TRUE(last.open(folder.path("else")));  // gives the former up
    }
    read_file(path, contents, error);
    EXPECT_EQ(contents, commits ? "last" : "the other");
  }
}

}  // namespace
}  // namespace tolvan
