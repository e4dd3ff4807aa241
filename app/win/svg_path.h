// SVG path data (the icons' drawings) parsed into figure commands for a Direct2D geometry sink.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velphone {

struct PathPoint {
    double x = 0;
    double y = 0;
    bool operator==(const PathPoint&) const = default;
};

enum class PathOp {
    MoveTo,   // BeginFigure; a figure still open at this point ends open
    LineTo,   // AddLine(p[0])
    CubicTo,  // AddBezier(p[0], p[1], p[2]): two control points, then the end
    Close,    // EndFigure(closed); the current point returns to the figure's start
};

struct PathCommand {
    PathOp op = PathOp::MoveTo;
    PathPoint p[3] = {};
    bool operator==(const PathCommand&) const = default;
};

using Path = std::vector<PathCommand>;

// How many of p[] a command uses; the rest stay zero, so equal drawings compare equal.
constexpr int pointCount(PathOp op) { return op == PathOp::CubicTo ? 3 : op == PathOp::Close ? 0 : 1; }

// Every command letter of the path grammar, absolute and relative. Arcs,
// quadratics and the smooth forms come out as cubics, so the sink sees only
// four kinds of command. Coordinates beyond ±1e9 are refused: they are never
// a drawing, and keeping them out keeps the arc arithmetic finite. On failure
// *error says where (byte offset) and why.
std::optional<Path> parseSvgPath(std::string_view data, std::string* error = nullptr);

struct PathBounds {
    double left = 0;
    double top = 0;
    double right = 0;
    double bottom = 0;
    bool operator==(const PathBounds&) const = default;
};

// The box around every point of the path, control points included (so it
// may be a little larger than the ink). An empty path gives an empty box at 0,0.
PathBounds bounds(const Path& path);

// Every point scaled about the origin, then moved by offset: an icon drawn in
// its 24-unit box at `size` pixels uses scale size / 24.
Path transform(const Path& path, double scale, PathPoint offset);

}  // namespace velphone
