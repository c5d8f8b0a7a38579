/* line_editor.h - reads lines from standard input, with editing, history and completion when it is a terminal, and
 * serves one ZeroMQ socket meanwhile. */
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "owned.h"

struct LineEditorCallbacks {
    std::function<void *()> socket;  // the libzmq socket to serve, asked for before each wait; may be NULL
    std::function<void()> serve;     // it is readable; what this prints stands above the line being typed
    std::function<std::vector<std::string>(const std::string &line)>
        complete;  // words for the line's unfinished last one
};

struct LineEditor;
void line_editor_free(LineEditor *editor);
using LineEditorOwner = std::unique_ptr<LineEditor, ByPointer<line_editor_free>>;

LineEditorOwner line_editor_new(const char *prompt, LineEditorCallbacks callbacks);
bool line_editor_is_interactive(const LineEditor &editor);

/* The next line without its end; none at the end of input and after Ctrl-C. */
std::optional<std::string> line_editor_read(LineEditor &editor);
