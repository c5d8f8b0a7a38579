/* steps.h - the single steps of a visit, each a StepFunction as visit.h describes it, and what they share. */
#pragma once

#include "visit.h"

constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial", *project_key = "/Device/Config/PROJECT_INFO";

Failure device_failure(const std::string &sentence); /* the device answers, but not as it should */
void require(bool holds, const std::string &otherwise);
void expect_status(const kesto::Reply &reply, kesto::Status status, const std::string &what);

Account account_named(const Account &account, const char *suffix); /* the same user under a further client id */
PassingId further_id(const Visit &visit, const char *suffix);
Session &session_of(Visit &visit);                                  /* throws NotChecked when there is none */
kesto::Reply ask_raw(Session &session, kesto::Operation operation); /* whatever the reply's status */

void write_project_info(Session &session, const std::string &text);

/* Discovery, the login port and logging in. */
std::string step_discover(Visit &visit);
std::string step_unwrap(Visit &visit);
std::string step_discover_and_unwrap(Visit &visit);
std::string step_discover_again(Visit &visit);
std::string step_discover_keyless(Visit &visit);
std::string step_garbage(Visit &visit);
std::string step_several_frames(Visit &visit);
std::string step_unsupported(Visit &visit);
std::string step_static_discovery(Visit &visit);
std::string step_log_in(Visit &visit);
std::string step_renew(Visit &visit);
std::string step_wrong_password(Visit &visit);
std::string step_other_user(Visit &visit);
std::string step_show_discovery(Visit &visit);
std::string step_echoed_fields(Visit &visit);

/* What a session is for, and its end. */
std::string step_read(Visit &visit);
std::string step_read_recursively(Visit &visit);
std::string step_read_missing(Visit &visit);
std::string step_read_masked(Visit &visit);
std::string step_write(Visit &visit);
std::string step_change_count(Visit &visit);
std::string step_write_several(Visit &visit);
std::string step_write_forbidden(Visit &visit);
std::string step_write_one_forbidden(Visit &visit);
std::string step_hear_other(Visit &visit);
std::string step_hear_alarm(Visit &visit);
std::string step_put_back(Visit &visit);
std::string step_log_out(Visit &visit);
std::string step_log_out_and_in(Visit &visit);
std::string step_vanish(Visit &visit);
