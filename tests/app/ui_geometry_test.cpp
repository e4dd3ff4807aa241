// The window's portable geometry: path data parsing, the icon table and the layout at several DPIs.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "app/win/icons.h"
#include "app/win/layout.h"
#include "app/win/svg_path.h"

namespace velphone {
namespace {

PathCommand M(double x, double y) { return {PathOp::MoveTo, {{x, y}}}; }
PathCommand L(double x, double y) { return {PathOp::LineTo, {{x, y}}}; }
PathCommand C(double a, double b, double c, double d, double x, double y) {
    return {PathOp::CubicTo, {{a, b}, {c, d}, {x, y}}};
}
const PathCommand Z{PathOp::Close, {}};
const double kQuarter = 4.0 / 3.0 * std::tan(std::numbers::pi / 8);  // a quarter circle's control length

bool near(const Path& a, const Path& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].op != b[i].op) return false;
        for (int j = 0; j < pointCount(a[i].op); ++j)
            if (std::fabs(a[i].p[j].x - b[i].p[j].x) > 1e-9 || std::fabs(a[i].p[j].y - b[i].p[j].y) > 1e-9)
                return false;
    }
    return true;
}

TEST(SvgPath, ParsesEveryCommand) {
    const std::vector<std::pair<std::string, Path>> cases = {
        {"", {}},
        {" \t\n", {}},
        {"M1,2L3,4", {M(1, 2), L(3, 4)}},
        {"m1,2l3,4", {M(1, 2), L(4, 6)}},
        {"M1 2 3 4 5 6", {M(1, 2), L(3, 4), L(5, 6)}},
        {"m1 2 3 4", {M(1, 2), L(4, 6)}},
        {"M1 1H5V7h-1v-2", {M(1, 1), L(5, 1), L(5, 7), L(4, 7), L(4, 5)}},
        {"M0 0C1 2 3 4 5 6c1 1 2 2 3 3", {M(0, 0), C(1, 2, 3, 4, 5, 6), C(6, 7, 7, 8, 8, 9)}},
        {"M0 0C1 1 2 2 3 0S5 -2 6 0", {M(0, 0), C(1, 1, 2, 2, 3, 0), C(4, -2, 5, -2, 6, 0)}},
        {"M0 0c1 1 2 2 3 0s2 -2 3 0", {M(0, 0), C(1, 1, 2, 2, 3, 0), C(4, -2, 5, -2, 6, 0)}},
        {"M1 1S2 2 3 3", {M(1, 1), C(1, 1, 2, 2, 3, 3)}},
        {"M0 0L1 1S2 2 3 3", {M(0, 0), L(1, 1), C(1, 1, 2, 2, 3, 3)}},
        {"M0 0Q3 3 6 0", {M(0, 0), C(2, 2, 4, 2, 6, 0)}},
        {"M0 0Q3 3 6 0T12 0", {M(0, 0), C(2, 2, 4, 2, 6, 0), C(8, -2, 10, -2, 12, 0)}},
        {"M0 0q3 3 6 0t6 0", {M(0, 0), C(2, 2, 4, 2, 6, 0), C(8, -2, 10, -2, 12, 0)}},
        {"M0 0T3 0", {M(0, 0), C(0, 0, 1, 0, 3, 0)}},
        {"M0 0C1 1 2 2 3 0T6 0", {M(0, 0), C(1, 1, 2, 2, 3, 0), C(3, 0, 4, 0, 6, 0)}},
        {"M1 1L5 1L5 5ZL1 5", {M(1, 1), L(5, 1), L(5, 5), Z, M(1, 1), L(1, 5)}},
        {"M2 2h3zl1 1", {M(2, 2), L(5, 2), Z, M(2, 2), L(3, 3)}},
        {"m1 1zm2 2zz", {M(1, 1), Z, M(3, 3), Z}},
        {"M3,13h2v-2H3v2zm0,4", {M(3, 13), L(5, 13), L(5, 11), L(3, 11), L(3, 13), Z, M(3, 17)}},
        {"M1.5.5L-.5-1e-3", {M(1.5, 0.5), L(-0.5, -0.001)}},
        {"M1e1,2E+1 +1-2 5.,6.", {M(10, 20), L(1, -2), L(5, 6)}},
        {"M0 0a1 1 0 011 1", {M(0, 0), C(kQuarter, 0, 1, 1 - kQuarter, 1, 1)}},
        {"M0 0A1,1,0,0,1,1,1", {M(0, 0), C(kQuarter, 0, 1, 1 - kQuarter, 1, 1)}},
        {"M0 0A0 5 0 0 1 4 4", {M(0, 0), L(4, 4)}},
        {"M0 0A1e-300 1e-300 0 0 0 1 1", {M(0, 0), L(1, 1)}},
        {"M1 1A5 5 0 0 1 1 1L2 2", {M(1, 1), L(2, 2)}},
    };
    for (const auto& [data, expected] : cases) {
        std::string error = "stale";
        const auto path = parseSvgPath(data, &error);
        ASSERT_TRUE(path) << data << ": " << error;
        EXPECT_EQ(error, "") << data;
        EXPECT_TRUE(near(*path, expected)) << data;
    }
}

TEST(SvgPath, ArcsFollowTheirEllipse) {
    struct Case {
        std::string data;
        double rx, ry, degrees;
        PathPoint centre, end, via;
        size_t cubics;
    };
    const std::vector<Case> cases = {
        {"M2 12A10 10 0 0 0 22 12", 10, 10, 0, {12, 12}, {22, 12}, {12, 22}, 2},
        {"M2 12A1 1 0 0 1 22 12", 10, 10, 0, {12, 12}, {22, 12}, {12, 2}, 2},  // radii scaled up
        {"M12 2a10 10 0 1 1 -10 10", 10, 10, 0, {12, 12}, {2, 12}, {12, 22}, 3},
        {"M12 2a10 10 0 0 1 -10 10", 10, 10, 0, {2, 2}, {2, 12}, {2, 12}, 1},
        {"M0 0A4 2 90 0 1 0 8", 4, 2, 90, {0, 4}, {0, 8}, {2, 4}, 2},
        {"M0 0A4 2 450 0 1 0 8", 4, 2, 90, {0, 4}, {0, 8}, {2, 4}, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.data);
        const auto path = parseSvgPath(c.data);
        ASSERT_TRUE(path);
        ASSERT_EQ(path->size(), c.cubics + 1);
        EXPECT_EQ(path->back().p[2], c.end);
        const double phi = c.degrees * std::numbers::pi / 180;
        const auto onEllipse = [&](PathPoint p) {
            const double dx = p.x - c.centre.x, dy = p.y - c.centre.y;
            const double u = (dx * std::cos(phi) + dy * std::sin(phi)) / c.rx;
            const double v = (-dx * std::sin(phi) + dy * std::cos(phi)) / c.ry;
            return std::fabs(std::sqrt(u * u + v * v) - 1) * std::min(c.rx, c.ry) < 0.01;
        };
        bool passesVia = false;
        PathPoint from = path->front().p[0];
        for (size_t i = 1; i < path->size(); ++i) {
            const PathCommand& cubic = (*path)[i];
            ASSERT_EQ(cubic.op, PathOp::CubicTo);
            const PathPoint mid{(from.x + 3 * cubic.p[0].x + 3 * cubic.p[1].x + cubic.p[2].x) / 8,
                                (from.y + 3 * cubic.p[0].y + 3 * cubic.p[1].y + cubic.p[2].y) / 8};
            EXPECT_TRUE(onEllipse(mid)) << "cubic " << i << " midpoint " << mid.x << "," << mid.y;
            EXPECT_TRUE(onEllipse(cubic.p[2])) << "cubic " << i;
            passesVia = passesVia || std::hypot(cubic.p[2].x - c.via.x, cubic.p[2].y - c.via.y) < 1e-9;
            from = cubic.p[2];
        }
        EXPECT_TRUE(passesVia);
    }
}

TEST(SvgPath, RefusesMalformedDataWithItsOffset) {
    const std::vector<std::pair<std::string, size_t>> cases = {
        {"L1 2", 0},        {" z", 1},           {"M1", 2},      {"M1 2L", 5},          {"M1 2X3", 4},
        {"M1 2 L3,,4", 8},  {"M1 2z3", 5},       {"M1 2L3 4,", 8}, {"M1 2A1 1 0 2 0 3 3", 11},
        {"M1e999 0", 1},    {"M1 2e", 4},        {"M-. 1", 1},   {"M1 2C1 2 3 4 5", 14}, {"M2e9 0", 1},
        {"M1,2\x01", 4},    {"M1 2Q1 2 3-", 10}, {"M,1 2", 1},
    };
    for (const auto& [data, offset] : cases) {
        std::string error;
        EXPECT_FALSE(parseSvgPath(data, &error)) << data;
        EXPECT_TRUE(error.starts_with("offset " + std::to_string(offset) + ": ")) << data << " -> " << error;
    }
}

TEST(SvgPath, BoundsAndTransform) {
    const auto path = parseSvgPath("M1 2C-1 5 3 9 4 4zL0 3");
    ASSERT_TRUE(path);
    EXPECT_EQ(bounds(*path), (PathBounds{-1, 2, 4, 9}));
    EXPECT_EQ(bounds(transform(*path, 2, {10, 20})), (PathBounds{8, 24, 18, 38}));
    EXPECT_EQ(bounds({}), PathBounds{});
}

TEST(Icons, EveryIconParsesInsideItsBox) {
    for (int i = 0; i < kIconCount; ++i) {
        SCOPED_TRACE(i);
        std::string error;
        const auto path = parseSvgPath(iconPath(static_cast<Icon>(i)), &error);
        ASSERT_TRUE(path) << error;
        ASSERT_FALSE(path->empty());
        const PathBounds box = bounds(*path);
        EXPECT_GE(box.left, 0);
        EXPECT_GE(box.top, 0);
        EXPECT_LE(box.right, 24);
        EXPECT_LE(box.bottom, 24);
        EXPECT_GT(box.right - box.left, 8);  // a drawing, not a speck
    }
}

std::vector<std::pair<Rect, Hit>> everyControl(const Layout& layout) {
    std::vector<std::pair<Rect, Hit>> all;
    for (int i = 0; i < kTabs; ++i) all.push_back({layout.tabs[static_cast<size_t>(i)], {Element::Tab, i}});
    for (int i = 0; i < 2; ++i) all.push_back({layout.lines[static_cast<size_t>(i)], {Element::Line, i}});
    for (int i = 0; i < 12; ++i)
        all.push_back({layout.keys[static_cast<size_t>(i)], {Element::Key, i, kKeypadKeys[static_cast<size_t>(i)]}});
    for (int i = 0; i < kToolButtons; ++i) all.push_back({layout.tools[static_cast<size_t>(i)], {Element::Tool, i}});
    all.push_back({layout.numberField, {Element::NumberField}});
    all.push_back({layout.microphone, {Element::Microphone}});
    all.push_back({layout.speaker, {Element::Speaker}});
    all.push_back({layout.status, {Element::Status}});
    return all;
}

TEST(Layout, ControlsTileCleanlyAtEveryDpi) {
    for (const int dpi : {96, 120, 144, 168, 192}) {
        SCOPED_TRACE(dpi);
        const Layout layout = compute(dpi);
        EXPECT_EQ(layout.client, clientSize(dpi));
        const auto all = everyControl(layout);
        for (size_t i = 0; i < all.size(); ++i) {
            const Rect& r = all[i].first;
            EXPECT_GT(r.width(), 0);
            EXPECT_GT(r.height(), 0);
            EXPECT_TRUE(r.left >= 0 && r.top >= 0 && r.right <= layout.client.width &&
                        r.bottom <= layout.client.height);
            for (size_t j = i + 1; j < all.size(); ++j) {
                const Rect& o = all[j].first;
                EXPECT_FALSE(r.left < o.right && o.left < r.right && r.top < o.bottom && o.top < r.bottom)
                    << "controls " << i << " and " << j << " overlap";
            }
            // The centre and the top-left pixel both belong to the control.
            EXPECT_EQ(layout.hitTest((r.left + r.right) / 2, (r.top + r.bottom) / 2), all[i].second) << i;
            EXPECT_EQ(layout.hitTest(r.left, r.top), all[i].second) << i;
        }
        for (size_t k = 0; k < 12; ++k) {
            const Rect& key = layout.keys[k];
            const Rect& right = layout.keys[k % 3 != 2 ? k + 1 : k];
            const Rect& below = layout.keys[k < 9 ? k + 3 : k];
            if (k % 3 != 2) {
                EXPECT_TRUE(key.right == right.left && key.top == right.top && key.bottom == right.bottom) << k;
            }
            if (k < 9) {
                EXPECT_TRUE(key.bottom == below.top && key.left == below.left && key.right == below.right) << k;
            }
            // Beside the keypad, out to the window's edges, nothing answers.
            const int y = (key.top + key.bottom) / 2;
            for (int x = 0; x < layout.keys[0].left; ++x) EXPECT_EQ(layout.hitTest(x, y), Hit{}) << x;
            for (int x = layout.keys[2].right; x < layout.client.width; ++x) EXPECT_EQ(layout.hitTest(x, y), Hit{}) << x;
        }
        for (size_t t = 0; t + 1 < layout.tools.size(); ++t) EXPECT_EQ(layout.tools[t].right, layout.tools[t + 1].left);
        EXPECT_EQ(layout.tools.front().left, layout.keys[0].left);
        EXPECT_EQ(layout.tools.back().right, layout.keys[2].right);
        EXPECT_EQ(layout.hitTest(-1, 0), Hit{});
        EXPECT_EQ(layout.hitTest(layout.client.width, layout.client.height - 1), Hit{});
    }
}

TEST(Layout, TwiceTheDpiIsExactlyTwiceTheSize) {
    const Layout one = compute(96), two = compute(192);
    EXPECT_EQ(one.client, (Size{320, 560}));
    EXPECT_EQ(two.client, (Size{640, 1120}));
    const auto a = everyControl(one), b = everyControl(two);
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].second.element == Element::Tool) continue;  // their design edges fall between pixels
        const Rect& r = a[i].first;
        EXPECT_EQ(b[i].first, (Rect{2 * r.left, 2 * r.top, 2 * r.right, 2 * r.bottom})) << i;
    }
    EXPECT_EQ(compute(0).client, one.client);
}

}  // namespace
}  // namespace velphone
