// Running the programs in build/ as a person would: a command line in a folder, its exit
// status and what it wrote on each stream; and the small file helpers such tests need.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

struct tool_run_result {
    int status;  // exit status, -1 when killed by a signal
    std::string out, err;
};

inline std::string tool_fixture_read(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline void tool_fixture_write(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

inline bool tool_fixture_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// A fresh empty folder under the test output folder.
inline std::string tool_fixture_dir(const std::string& root, const std::string& name)
{
    const std::string dir = root + "/" + name;
    std::filesystem::remove_all(dir), std::filesystem::create_directories(dir);
    return dir;
}

// Every entry of a folder, sorted; none when there is no such folder.
inline std::vector<std::string> tool_fixture_list(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(dir, missing))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// Runs `command` through the shell in `dir`, standard output and error kept apart.
inline tool_run_result tool_fixture_run(const std::string& dir, const std::string& command)
{
    char err_path[] = "/tmp/reel_tool_errXXXXXX";
    close(mkstemp(err_path));
    FILE* p = popen(("cd '" + dir + "' && " + command + " 2>'" + err_path + "'").c_str(), "r");
    std::string out;
    char buf[4096];
    while (size_t n = fread(buf, 1, sizeof(buf), p))
        out.append(buf, n);
    const int status = pclose(p);
    const tool_run_result r = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, tool_fixture_read(err_path)};
    unlink(err_path);
    return r;
}

// A show in dir/assets/reel/le/ made with reel_pack from tools_dir: the script, and
// `music_bytes` bytes of silent music as the blob "music". Returns 0, or reel_pack's status.
inline int tool_fixture_pack_show(const std::string& dir, const std::string& tools_dir, const std::string& script,
                                  size_t music_bytes)
{
    const std::string packs = dir + "/assets/reel/le";
    std::filesystem::create_directories(packs);
    tool_fixture_write(dir + "/sequence.csv", script);
    tool_fixture_write(dir + "/music.bin", std::string(music_bytes, '\0'));
    tool_fixture_write(dir + "/pak0.manifest", "raw sequence.csv sequence.csv 1\nblob music music.bin\n");
    tool_fixture_write(dir + "/other.manifest", "raw readme sequence.csv 1\n");
    for (int i = 0; i < 3; i++)
        if (const int status = tool_fixture_run(dir, tools_dir + "/reel_pack " + (i ? "other" : "pak0") +
                                                         ".manifest '" + packs + "/pak" + std::to_string(i) + ".rpk'")
                                   .status)
            return status;
    return 0;
}
