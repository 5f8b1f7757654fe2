// Notes every response and status that the plug-in hands to the service, and passes it on.
#pragma once

#include <VellDevice/VellDevice.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct Patch {
    std::map<std::string, std::string> spectralAttributes;
    std::map<std::string, std::string> labAttributes;
    std::vector<double> spectrum;
    std::vector<double> lab;
};

struct Post {
    std::string command;
    std::string ticket; // the argument "ticket", by which tests tell commands apart
    int code;
    std::string message;
    bool hasMeasurements;
    std::vector<Patch> patches; // one per reading
    bool onMainThread;          // posted by the thread that last called clearPosts
    int statusesBefore;         // status posts since then
};

// A response that is posted again is noted once. Any thread.
std::vector<Post> posts();
std::vector<Post> postsFor(const std::string& command);
int statusPosts();
// The command table that the last response carried.
using CommandTable = std::vector<std::pair<std::string, std::vector<std::string>>>;
CommandTable postedCommandTable();
void clearPosts();

} // namespace test
