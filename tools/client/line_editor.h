/* line_editor.h - reads lines from standard input, with editing, history and completion when it is a terminal, and
 * shows what comes in meanwhile. */
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "owned.h"

struct LineEditorCallbacks {
    std::function<int()> descriptor;  // readable when there may be more to show; asked for before each wait; -1: none
    std::function<bool()> has_more;   // there is something to show
    std::function<void()> show;       // prints it, above the line being typed
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
