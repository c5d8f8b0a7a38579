/* commands.h - the commands that ask one thing and end. Each returns the exit status or throws a Failure. */
#pragma once

#include "output.h"

int run_discover(const Options &options);
int run_login(const Options &options);
int run_logout(const Options &options);
int run_read(const Options &options);
int run_write(const Options &options);
int run_multi_write(const Options &options);
int run_may(const Options &options);
int run_static_discovery(const Options &options);
int run_changes(const Options &options);

/* The words of a multi-write, each KEY=VALUE. */
std::vector<Assignment> parse_assignments(const std::vector<std::string> &words);

Output ask_rights(Session &session, const std::string &key);
