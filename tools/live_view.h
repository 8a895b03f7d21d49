#ifndef MEDIAD_TOOLS_LIVE_VIEW_H
#define MEDIAD_TOOLS_LIVE_VIEW_H

#include <cstddef>
#include <optional>
#include <string>

namespace mediactl {

// What --watch shows on standard output: on a terminal one picture that is drawn over the last one, elsewhere a block of
// text, or a line of JSON, for each.
class LiveView {
public:
    explicit LiveView(bool json);

    // How many lines fit, where that is limited.
    std::optional<std::size_t> lines() const;

    // `text` is safe for a terminal and ends with a line feed.
    void show(const std::string& text);

    // Something else was written meanwhile, a complaint for instance. True when the picture has to be shown again.
    bool forget();

private:
    bool _json;
    bool _inPlace;
    bool _shown = false;
};

} // namespace mediactl

#endif
