// Running the programs in build/ as a person would: a command line in a folder, its exit
// status and what it wrote on each stream; and the small file helpers such tests need.
#pragma once

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

struct tool_run_result {
    int status;  // exit status, -1 when killed by a signal
    std::string out;
    std::string err;
};

inline std::string tool_fixture_read(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline void tool_fixture_write(const std::string& path, const std::string& bytes)
{
    std::ofstream f(path, std::ios::binary);
    f << bytes;
}

inline bool tool_fixture_exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// A fresh empty folder under the test output folder.
inline std::string tool_fixture_dir(const std::string& root, const std::string& name)
{
    const std::string dir = root + "/" + name;
    std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
    return dir;
}

// Every entry of a folder, "." and ".." left out, in the order ls gives.
inline std::vector<std::string> tool_fixture_list(const std::string& dir)
{
    std::vector<std::string> names;
    FILE* p = popen(("ls -A '" + dir + "'").c_str(), "r");
    char line[4096];
    while (p && fgets(line, sizeof(line), p)) {
        std::string name(line);
        if (!name.empty() && name.back() == '\n')
            name.pop_back();
        names.push_back(name);
    }
    if (p)
        pclose(p);
    return names;
}

// Runs `command` through the shell in `dir`, standard output and error kept apart.
inline tool_run_result tool_fixture_run(const std::string& dir, const std::string& command)
{
    char err_path[] = "/tmp/reel_tool_errXXXXXX";
    const int fd = mkstemp(err_path);
    close(fd);
    FILE* p = popen(("cd '" + dir + "' && " + command + " 2>'" + err_path + "'").c_str(), "r");
    tool_run_result r = {-1, "", ""};
    char buf[4096];
    while (size_t n = fread(buf, 1, sizeof(buf), p))
        r.out.append(buf, n);
    const int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.err = tool_fixture_read(err_path);
    unlink(err_path);
    return r;
}
