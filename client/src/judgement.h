/* judgement.h - what a reply means for who asked, in the same words for every kind of client.
 *
 * A refusal on the wire gives no reason. Whether it was the user's rights is asked afterwards, with Authorize, which
 * changes nothing. */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <kesto-client/answer.h>

namespace kesto {

Answer judge(const Operation &operation, Reply reply);

/* What to ask after this answer, one after the other, until one is not allowed. */
std::vector<Authorize> questions_after(const Operation &operation, const Answer &answer);

/* The answer when `denied` is what the user may not do. */
Answer answer_denied(Answer answer, const Operation &operation, const Authorize &denied, const std::string &user);

/* What a login or a log-out has brought. `who` is asked for its user and client id in the sentence. */
struct Who {
    std::string user, client_id;
};
Answer judge_login(const Who &who, bool with_static_discovery, Answer answer);
Answer judge_log_out(Answer answer);

bool is_plausible(const Ports &ports);

}  // namespace kesto
