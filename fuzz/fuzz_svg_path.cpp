// Fuzz target for parseSvgPath, bounds and transform.
#include <cmath>
#include <cstdio>

#include "app/win/svg_path.h"
#include "fuzz/fuzz_support.h"

using velmora::fuzz::require;
using namespace velphone;

namespace {

// The path in absolute M, L, C and Z only, with every digit a double needs.
std::string written(const Path& path) {
    std::string text;
    char number[64];
    for (const PathCommand& command : path) {
        text += "MLCZ"[static_cast<int>(command.op)];
        for (int i = 0; i < pointCount(command.op); ++i) {
            std::snprintf(number, sizeof number, "%.17g,%.17g ", command.p[i].x, command.p[i].y);
            text += number;
        }
    }
    return text;
}

}  // namespace

VELMORA_FUZZ_TARGET {
    std::string error;
    const auto path = parseSvgPath(input, &error);
    if (!path) {
        size_t offset = input.size() + 1;
        require(std::sscanf(error.c_str(), "offset %zu: ", &offset) == 1 && offset <= input.size(),
                "a refused path says where, inside the input", input, error);
        return;
    }
    require(error.empty(), "an accepted path leaves no error", input, error);
    bool open = false, small = true;
    for (const PathCommand& command : *path) {
        require(command.op == PathOp::MoveTo || open, "every segment and close is inside a figure", input);
        open = command.op != PathOp::Close;
        for (int i = 0; i < pointCount(command.op); ++i) {
            const PathPoint p = command.p[i];
            require(std::isfinite(p.x) && std::isfinite(p.y), "every point is finite", input, written(*path));
            small = small && std::fabs(p.x) <= 1e9 && std::fabs(p.y) <= 1e9;
        }
        for (int i = pointCount(command.op); i < 3; ++i)
            require(command.p[i] == PathPoint{}, "unused points are zero", input);
    }
    const PathBounds box = bounds(*path), moved = bounds(transform(*path, 2, {1, -1}));
    require(box.left <= box.right && box.top <= box.bottom, "the bounds are ordered", input);
    require(path->empty() || moved == PathBounds{2 * box.left + 1, 2 * box.top - 1, 2 * box.right + 1, 2 * box.bottom - 1},
            "transformed bounds are the bounds transformed", input);
    // Relative coordinates can add up past the parser's limit; such a path cannot be written back.
    if (!small) return;
    const std::string text = written(*path);
    const auto again = parseSvgPath(text, &error);
    require(again && *again == *path, "the path written back in absolute commands parses to itself", input,
            text + " -> " + error);
}
