// The path data parser: number grammar, command letters, and arcs turned into cubics.
#include "app/win/svg_path.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <numbers>

namespace velphone {
namespace {

constexpr double kLimit = 1e9;
constexpr double kPi = std::numbers::pi;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

PathPoint operator+(PathPoint a, PathPoint b) { return {a.x + b.x, a.y + b.y}; }
PathPoint operator-(PathPoint a, PathPoint b) { return {a.x - b.x, a.y - b.y}; }
PathPoint operator*(double k, PathPoint a) { return {k * a.x, k * a.y}; }

// How many numbers one group of each command takes; 0 for letters that are not commands.
int groupSize(char upper) {
    switch (upper) {
        case 'M': case 'L': case 'T': return 2;
        case 'H': case 'V': return 1;
        case 'C': return 6;
        case 'S': case 'Q': return 4;
        case 'A': return 7;
        case 'Z': return 0;
        default: return -1;
    }
}

class Parser {
public:
    explicit Parser(std::string_view data) : d_(data) {}

    std::optional<Path> run(std::string* error) {
        const bool ok = parse();
        if (error) *error = ok ? std::string() : error_;
        if (!ok) return std::nullopt;
        return std::move(out_);
    }

private:
    std::string_view d_;
    size_t pos_ = 0;
    std::string error_;
    Path out_;
    PathPoint cur_, start_;
    bool figureOpen_ = false;
    char prev_ = 0;  // the previous group's command, upper case: S and T reflect only after their own kind
    PathPoint lastC2_, lastQ_;

    bool fail(size_t at, const std::string& reason) {
        error_ = "offset " + std::to_string(at) + ": " + reason;
        return false;
    }
    bool more() const { return pos_ < d_.size(); }
    void skipSpace() {
        while (more() && isSpace(d_[pos_])) ++pos_;
    }
    bool atNumber() const {
        if (!more()) return false;
        const char c = d_[pos_];
        return isDigit(c) || c == '.' || c == '-' || c == '+';
    }
    // Whitespace with at most one comma between two numbers.
    void separator() {
        skipSpace();
        if (more() && d_[pos_] == ',') {
            ++pos_;
            skipSpace();
        }
    }
    // After a complete group: does another one follow (the command repeats)?
    bool anotherGroup(bool& error) {
        skipSpace();
        const size_t comma = pos_;
        if (more() && d_[pos_] == ',') {
            ++pos_;
            skipSpace();
            if (!atNumber()) {
                error = true;
                return fail(comma, "a ',' must be followed by a number");
            }
        }
        return atNumber();
    }

    bool number(double& value, char command) {
        const size_t begin = pos_;
        size_t i = pos_;
        if (i < d_.size() && (d_[i] == '-' || d_[i] == '+')) ++i;
        const size_t digits = i;
        while (i < d_.size() && isDigit(d_[i])) ++i;
        bool any = i > digits;
        if (i < d_.size() && d_[i] == '.') {
            const size_t fraction = ++i;
            while (i < d_.size() && isDigit(d_[i])) ++i;
            any = any || i > fraction;
        }
        if (!any) return fail(begin, std::string("'") + command + "' is missing a number");
        // An 'e' without digits after it is not part of the number (and then fails as a command).
        if (i < d_.size() && (d_[i] == 'e' || d_[i] == 'E')) {
            size_t e = i + 1;
            if (e < d_.size() && (d_[e] == '-' || d_[e] == '+')) ++e;
            const size_t expDigits = e;
            while (e < d_.size() && isDigit(d_[e])) ++e;
            if (e > expDigits) i = e;
        }
        // from_chars takes no leading '+'.
        const char* first = d_.data() + begin + (d_[begin] == '+' ? 1 : 0);
        const auto [end, ec] = std::from_chars(first, d_.data() + i, value);
        if (ec != std::errc() || end != d_.data() + i || !(std::fabs(value) <= kLimit))
            return fail(begin, "number out of range");
        pos_ = i;
        return true;
    }

    bool flag(bool& value, char command) {
        if (!more() || (d_[pos_] != '0' && d_[pos_] != '1'))
            return fail(pos_, std::string("'") + command + "' needs a flag, 0 or 1");
        value = d_[pos_++] == '1';
        return true;
    }

    void begin() {
        if (figureOpen_) return;
        out_.push_back({PathOp::MoveTo, {cur_}});
        start_ = cur_;
        figureOpen_ = true;
    }
    void moveTo(PathPoint p) {
        out_.push_back({PathOp::MoveTo, {p}});
        cur_ = start_ = p;
        figureOpen_ = true;
    }
    void lineTo(PathPoint p) {
        begin();
        out_.push_back({PathOp::LineTo, {p}});
        cur_ = p;
    }
    void cubicTo(PathPoint c1, PathPoint c2, PathPoint p) {
        begin();
        out_.push_back({PathOp::CubicTo, {c1, c2, p}});
        cur_ = p;
    }
    void close() {
        if (figureOpen_) out_.push_back({PathOp::Close, {}});
        figureOpen_ = false;
        cur_ = start_;
    }
    // A quadratic is exactly the cubic whose controls lie 2/3 of the way to its control point.
    void quadTo(PathPoint q, PathPoint p) {
        cubicTo(cur_ + (2.0 / 3.0) * (q - cur_), p + (2.0 / 3.0) * (q - p), p);
    }
    void arcTo(double rx, double ry, double degrees, bool large, bool sweep, PathPoint p);

    bool parse();
    bool group(char command, char upper, bool relative);
};

void Parser::arcTo(double rx, double ry, double degrees, bool large, bool sweep, PathPoint p) {
    if (p == cur_) return;  // an arc to its own start draws nothing
    rx = std::fabs(rx);
    ry = std::fabs(ry);
    if (rx == 0 || ry == 0) return lineTo(p);
    const double phi = std::fmod(degrees, 360.0) * kPi / 180.0;
    const double c = std::cos(phi), s = std::sin(phi);
    // The start and end in a frame centred between them, axes along the ellipse's.
    const double hx = (cur_.x - p.x) / 2, hy = (cur_.y - p.y) / 2;
    const double x1 = c * hx + s * hy, y1 = -s * hx + c * hy;
    const double lambda = x1 * x1 / (rx * rx) + y1 * y1 / (ry * ry);
    if (lambda > 1) {  // radii too small to reach: the smallest ellipse that does
        rx *= std::sqrt(lambda);
        ry *= std::sqrt(lambda);
    }
    const double rx2 = rx * rx, ry2 = ry * ry;
    const double den = rx2 * y1 * y1 + ry2 * x1 * x1;
    double root = std::sqrt(std::max(0.0, (rx2 * ry2 - den) / den));
    if (large == sweep) root = -root;
    const double cx1 = root * rx * y1 / ry, cy1 = -root * ry * x1 / rx;
    const PathPoint centre{c * cx1 - s * cy1 + (cur_.x + p.x) / 2, s * cx1 + c * cy1 + (cur_.y + p.y) / 2};
    const double ux = (x1 - cx1) / rx, uy = (y1 - cy1) / ry;
    const double vx = (-x1 - cx1) / rx, vy = (-y1 - cy1) / ry;
    const double theta = std::atan2(uy, ux);
    double span = std::atan2(ux * vy - uy * vx, ux * vx + uy * vy);
    if (!sweep && span > 0) span -= 2 * kPi;
    if (sweep && span < 0) span += 2 * kPi;
    // Radii so small that the arithmetic underflowed: the chord is all that can be drawn.
    if (!std::isfinite(span) || !std::isfinite(centre.x) || !std::isfinite(centre.y)) return lineTo(p);

    // At most a quarter turn per cubic keeps the error far below a pixel.
    const int segments = std::max(1, static_cast<int>(std::ceil(std::fabs(span) / (kPi / 2) - 1e-9)));
    const double step = span / segments;
    const double k = 4.0 / 3.0 * std::tan(step / 4);
    const auto at = [&](double t) {
        return PathPoint{centre.x + rx * c * std::cos(t) - ry * s * std::sin(t),
                         centre.y + rx * s * std::cos(t) + ry * c * std::sin(t)};
    };
    const auto tangent = [&](double t) {
        return PathPoint{-rx * c * std::sin(t) - ry * s * std::cos(t), -rx * s * std::sin(t) + ry * c * std::cos(t)};
    };
    Path pieces;
    PathPoint from = cur_;
    for (int i = 0; i < segments; ++i) {
        const double t1 = theta + i * step, t2 = t1 + step;
        const PathPoint to = i == segments - 1 ? p : at(t2);
        pieces.push_back({PathOp::CubicTo, {from + k * tangent(t1), to - k * tangent(t2), to}});
        from = to;
    }
    for (const PathCommand& piece : pieces)
        for (const PathPoint& q : piece.p)
            if (!std::isfinite(q.x) || !std::isfinite(q.y)) return lineTo(p);
    for (const PathCommand& piece : pieces) cubicTo(piece.p[0], piece.p[1], piece.p[2]);
}

bool Parser::group(char command, char upper, bool relative) {
    double v[7] = {};
    const int n = groupSize(upper);
    for (int i = 0; i < n; ++i) {
        if (i > 0) separator();
        if (upper == 'A' && (i == 3 || i == 4)) {
            bool f = false;
            if (!flag(f, command)) return false;
            v[i] = f ? 1 : 0;
        } else if (!number(v[i], command)) {
            return false;
        }
    }
    const PathPoint base = relative ? cur_ : PathPoint{};
    const auto pt = [&](int i) { return base + PathPoint{v[i], v[i + 1]}; };
    switch (upper) {
        case 'M': moveTo(pt(0)); break;
        case 'L': lineTo(pt(0)); break;
        case 'H': lineTo({base.x + v[0], cur_.y}); break;
        case 'V': lineTo({cur_.x, base.y + v[0]}); break;
        case 'C':
            lastC2_ = pt(2);
            cubicTo(pt(0), lastC2_, pt(4));
            break;
        case 'S': {
            const PathPoint c1 = prev_ == 'C' || prev_ == 'S' ? 2.0 * cur_ - lastC2_ : cur_;
            lastC2_ = pt(0);
            cubicTo(c1, lastC2_, pt(2));
            break;
        }
        case 'Q':
            lastQ_ = pt(0);
            quadTo(lastQ_, pt(2));
            break;
        case 'T':
            lastQ_ = prev_ == 'Q' || prev_ == 'T' ? 2.0 * cur_ - lastQ_ : cur_;
            quadTo(lastQ_, pt(0));
            break;
        case 'A': arcTo(v[0], v[1], v[2], v[3] != 0, v[4] != 0, pt(5)); break;
    }
    prev_ = upper;
    return true;
}

bool Parser::parse() {
    skipSpace();
    if (!more()) return true;  // empty path data draws nothing
    if (d_[pos_] != 'M' && d_[pos_] != 'm') return fail(pos_, "path data must start with 'M' or 'm'");
    while (true) {
        skipSpace();
        if (!more()) return true;
        const size_t at = pos_;
        const char command = d_[pos_];
        const char upper = command >= 'a' && command <= 'z' ? static_cast<char>(command - 'a' + 'A') : command;
        if (groupSize(upper) < 0) {
            const auto code = static_cast<unsigned char>(command);
            char shown[16];
            std::snprintf(shown, sizeof shown, code > 0x20 && code < 0x7f ? "'%c'" : "0x%02x", code);
            if (atNumber()) return fail(at, "a number where a command letter belongs");
            return fail(at, std::string("unknown command ") + shown);
        }
        ++pos_;
        if (upper == 'Z') {
            close();
            prev_ = 'Z';
            continue;
        }
        skipSpace();
        // A leading m is relative to 0,0, which makes it absolute as the grammar asks.
        bool relative = command != upper;
        char current = upper;
        bool error = false;
        do {
            if (!group(command, current, relative)) return false;
            // Pairs after a moveto are implicit linetos, relative after m.
            if (current == 'M') {
                current = 'L';
                relative = command == 'm';
            }
        } while (anotherGroup(error));
        if (error) return false;
    }
}

}  // namespace

std::optional<Path> parseSvgPath(std::string_view data, std::string* error) { return Parser(data).run(error); }

PathBounds bounds(const Path& path) {
    bool any = false;
    PathBounds box;
    for (const PathCommand& command : path) {
        for (int i = 0; i < pointCount(command.op); ++i) {
            const PathPoint& p = command.p[i];
            if (!any) box = {p.x, p.y, p.x, p.y};
            any = true;
            box = {std::min(box.left, p.x), std::min(box.top, p.y), std::max(box.right, p.x),
                   std::max(box.bottom, p.y)};
        }
    }
    return box;
}

Path transform(const Path& path, double scale, PathPoint offset) {
    Path out = path;
    for (PathCommand& command : out)
        for (int i = 0; i < pointCount(command.op); ++i) command.p[i] = offset + scale * command.p[i];
    return out;
}

}  // namespace velphone
