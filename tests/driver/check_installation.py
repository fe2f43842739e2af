#!/usr/bin/env python3
"""check_installation.py CMAKE BUILD REQUEST: installs into a temporary folder, moves it, and uses what stands there.

A project of its own finds the library by find_package, another program by pkg-config, and the installed driver runs.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

PROGRAM = """#include <tolvan/tolvan_api.h>
int main(void)
{
  int32_t status = -1;
  void* handle = 0;
  ctlv_initialise(&status, &handle, "GENERAL_INFO", 12);
  ctlv_cleanup(&handle);
  return status;
}
"""
PROJECT = """cmake_minimum_required(VERSION 3.25)
project(host C)
find_package(tolvan 1 REQUIRED)
add_executable(host host.c)
target_link_libraries(host tolvan::tolvan_api)
"""


def run(*command, **more):
    done = subprocess.run([str(c) for c in command], capture_output=True, text=True, **more)
    if done.returncode != 0:
        print(" ".join(str(c) for c in command), "gives", done.returncode)
        print(done.stdout, done.stderr)
        sys.exit(1)
    return done.stdout


def main():
    cmake, build, request = sys.argv[1:]
    with tempfile.TemporaryDirectory() as work:
        work = pathlib.Path(work)
        run(cmake, "--install", build, "--prefix", work / "first")
        root = work / "moved"
        (work / "first").rename(root)
        (work / "host.c").write_text(PROGRAM)
        (work / "CMakeLists.txt").write_text(PROJECT)
        run(cmake, "-S", work, "-B", work / "build", f"-DCMAKE_PREFIX_PATH={root}", "-DCMAKE_BUILD_TYPE=Release")
        run(cmake, "--build", work / "build")
        run(work / "build" / "host")
        if shutil.which("pkg-config"):
            pc = next(root.rglob("tolvan.pc"))
            flags = run("pkg-config", "--cflags", "--libs", "tolvan",
                        env={**os.environ, "PKG_CONFIG_PATH": str(pc.parent)}).split()
            run("cc", "-std=c99", work / "host.c", "-o", work / "by_pkg_config", *flags,
                f"-Wl,-rpath,{pc.parent.parent}")
            run(work / "by_pkg_config")
        report = run(root / "bin" / "tolvan", "fit", "-q", request, cwd=work)
        if "-209.377942" not in report:
            print(report)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
