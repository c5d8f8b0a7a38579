/* libedit asks for one character at a time, so the wait for the next one is the place to show what
 * the device publishes. */
#include "line_editor.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <histedit.h>
#include <poll.h>
#include <unistd.h>

#include "interrupt.h"

struct LineEditor {
    const char *prompt;
    LineEditorCallbacks callbacks;
    std::unique_ptr<History, ByPointer<history_end>> history;
    std::unique_ptr<EditLine, ByPointer<el_end>> line;  // none: standard input is no terminal
    std::string received;                               // without a terminal: what is not yet a line
};

static constexpr int history_lines = 500;
static constexpr size_t listed_words_max = 60;
static constexpr size_t read_size_bytes = 4096;
static constexpr int look_ms = 250;  // a Ctrl-C just before a wait is noticed only after it
static constexpr const char *erase_line = "\r\x1b[K";

static LineEditor &editor_of(EditLine *line) {
    void *editor = nullptr;
    el_get(line, EL_CLIENTDATA, &editor);
    return *static_cast<LineEditor *>(editor);
}

static void show_published(LineEditor &editor) {
    while (editor.callbacks.has_more()) {
        if (editor.line) fputs(erase_line, stdout);
        editor.callbacks.show();
        if (editor.line) el_set(editor.line.get(), EL_REFRESH);
    }
}

/* Until standard input is readable; false after Ctrl-C. */
static bool wait_for_input(LineEditor &editor) {
    while (!is_interrupted()) {
        show_published(editor);
        pollfd items[] = {
            {STDIN_FILENO,                  POLLIN, 0},
            {editor.callbacks.descriptor(), POLLIN, 0}
        };
        if (poll(items, std::size(items), look_ms) > 0 && items[0].revents != 0) return true;
    }
    return false;
}

static int read_character(EditLine *line, wchar_t *character) {
    std::mbstate_t state{};
    constexpr auto incomplete = static_cast<size_t>(-2), invalid = static_cast<size_t>(-1);
    for (;;) {
        char received = 0;
        if (!wait_for_input(editor_of(line)) || read(STDIN_FILENO, &received, 1) != 1) return 0;
        const size_t length = mbrtowc(character, &received, 1, &state);
        if (length == invalid) state = {};
        if (length != invalid && length != incomplete) return 1;
    }
}

static char *show_prompt(EditLine *line) { return const_cast<char *>(editor_of(line).prompt); }

static std::string common_beginning(const std::vector<std::string> &words) {
    std::string common = words.front();
    for (const std::string &word : words) {
        const auto difference = std::mismatch(common.begin(), common.end(), word.begin(), word.end());
        common.erase(difference.first, common.end());
    }
    return common;
}

static void list_words(const std::vector<std::string> &words) {
    fputc('\n', stdout);
    for (size_t i = 0; i < std::min(words.size(), listed_words_max); ++i) printf("%s\n", words[i].c_str());
    if (words.size() > listed_words_max) printf("... and %zu more\n", words.size() - listed_words_max);
    fflush(stdout);
}

static unsigned char complete_word(EditLine *line, wint_t) {
    const LineInfo *info = el_line(line);
    const std::string before(info->buffer, info->cursor);
    const std::string unfinished = before.substr(before.find_last_of(' ') + 1);
    const std::vector<std::string> words = editor_of(line).callbacks.complete(before);
    if (words.empty()) return CC_ERROR;
    std::string rest = common_beginning(words).substr(unfinished.size());
    if (words.size() == 1 && !words.front().ends_with('/')) rest += ' ';
    if (!rest.empty()) {
        el_insertstr(line, rest.c_str());
        return CC_REFRESH;
    }
    list_words(words);
    return CC_REDISPLAY;
}

static void start_editing(LineEditor &editor) {
    HistEvent event;
    editor.history.reset(history_init());
    history(editor.history.get(), &event, H_SETSIZE, history_lines);
    editor.line.reset(el_init("kesto-client", stdin, stdout, stderr));
    EditLine *line = editor.line.get();
    el_set(line, EL_CLIENTDATA, &editor);
    el_set(line, EL_PROMPT, show_prompt);
    el_set(line, EL_EDITOR, "emacs");
    el_set(line, EL_HIST, history, editor.history.get());
    el_wset(line, EL_ADDFN, L"complete", L"Complete the word", complete_word);
    el_set(line, EL_BIND, "^I", "complete", nullptr);
    el_wset(line, EL_GETCFN, read_character);
}

static std::optional<std::string> read_edited_line(LineEditor &editor) {
    int length = 0;
    const char *text = el_gets(editor.line.get(), &length);
    if (text == nullptr || length <= 0) {
        fputc('\n', stdout);
        return std::nullopt;
    }
    std::string line(text, static_cast<size_t>(length));
    HistEvent event;
    if (line != "\n") history(editor.history.get(), &event, H_ENTER, line.c_str());
    if (line.ends_with('\n')) line.pop_back();
    return line;
}

static std::optional<std::string> take_line(std::string &received, bool at_end) {
    const size_t end = received.find('\n');
    if (end == std::string::npos && (!at_end || received.empty())) return std::nullopt;
    std::string line = received.substr(0, end);
    received.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

static std::optional<std::string> read_plain_line(LineEditor &editor) {
    for (;;) {
        std::optional<std::string> line = take_line(editor.received, false);
        if (line) return line;
        if (!wait_for_input(editor)) return std::nullopt;
        char buffer[read_size_bytes];
        const ssize_t length = read(STDIN_FILENO, buffer, sizeof buffer);
        if (length <= 0) return take_line(editor.received, true);
        editor.received.append(buffer, static_cast<size_t>(length));
    }
}

void line_editor_free(LineEditor *editor) { delete editor; }

LineEditorOwner line_editor_new(const char *prompt, LineEditorCallbacks callbacks) {
    LineEditorOwner editor(new LineEditor{prompt, std::move(callbacks), nullptr, nullptr, {}});
    if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) start_editing(*editor);
    return editor;
}

bool line_editor_is_interactive(const LineEditor &editor) { return editor.line != nullptr; }

std::optional<std::string> line_editor_read(LineEditor &editor) {
    return editor.line ? read_edited_line(editor) : read_plain_line(editor);
}
