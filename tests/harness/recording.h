/* recording.h - keeps what a program under test has logged, for log_texts.py, which finds messages that no test saw. */
#pragma once

#include <cstdlib>
#include <string>
#include <unistd.h>

/* Writes `text` to a new file in the folder $ACCESS_RECORDINGS and gives its path; "" without that variable. */
inline std::string keep_recording(const std::string &text) {
    const char *folder = getenv("ACCESS_RECORDINGS");
    if (folder == nullptr) return "";
    std::string path = std::string(folder) + "/XXXXXX";
    const int file = mkstemp(path.data());
    if (file == -1 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) abort();
    close(file);
    return path;
}
