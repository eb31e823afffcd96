// The sample part: its relief and its print, at any point.
#include "scene/sample_surface.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>
#include <vector>

namespace velostrix::scene {
namespace {

struct Point {
  double x;
  double y;
};

double Distance(Point a, Point b) {
  const double dx = a.x - b.x;
  const double dy = a.y - b.y;
  return std::sqrt(dx * dx + dy * dy);
}

struct Segment {
  Point from;
  Point to;
};

double Distance(Point p, const Segment& s) {
  const double dx = s.to.x - s.from.x;
  const double dy = s.to.y - s.from.y;
  const double along = ((p.x - s.from.x) * dx + (p.y - s.from.y) * dy) / (dx * dx + dy * dy);
  const double t = std::clamp(along, 0.0, 1.0);
  return Distance(p, Point{s.from.x + t * dx, s.from.y + t * dy});
}

// Strokes of one drawing, and the box that holds them.
class Strokes {
 public:
  explicit Strokes(std::vector<Segment> segments) : segments_(std::move(segments)) {
    for (const Segment& s : segments_) {
      for (const Point& p : {s.from, s.to}) {
        low_ = {std::min(low_.x, p.x), std::min(low_.y, p.y)};
        high_ = {std::max(high_.x, p.x), std::max(high_.y, p.y)};
      }
    }
  }

  // The distance to the nearest stroke; anything from `reach` up when it is not below that.
  double DistanceWithin(double reach, Point p) const {
    if (p.x < low_.x - reach || p.x > high_.x + reach || p.y < low_.y - reach ||
        p.y > high_.y + reach) {
      return reach;
    }
    double nearest = reach;
    for (const Segment& s : segments_) nearest = std::min(nearest, Distance(p, s));
    return nearest;
  }

 private:
  static constexpr double kFar = std::numeric_limits<double>::infinity();
  std::vector<Segment> segments_;
  Point low_ = {kFar, kFar};
  Point high_ = {-kFar, -kFar};
};

// Strokes of a letter in a cell 1 wide and 2 high, y down.
std::vector<Segment> Letter(char letter) {
  switch (letter) {
    case 'E':
      return {{{1, 0}, {0, 0}}, {{0, 0}, {0, 2}}, {{0, 2}, {1, 2}}, {{0, 1}, {0.8, 1}}};
    case 'F':
      return {{{1, 0}, {0, 0}}, {{0, 0}, {0, 2}}, {{0, 1}, {0.8, 1}}};
    case 'I':
      return {{{0.5, 0}, {0.5, 2}}};
    case 'L':
      return {{{0, 0}, {0, 2}}, {{0, 2}, {1, 2}}};
    case 'N':
      return {{{0, 2}, {0, 0}}, {{0, 0}, {1, 2}}, {{1, 2}, {1, 0}}};
    case 'P':
      return {{{0, 2}, {0, 0}}, {{0, 0}, {1, 0}}, {{1, 0}, {1, 1}}, {{1, 1}, {0, 1}}};
    case 'R':
      return {{{0, 2}, {0, 0}},
              {{0, 0}, {1, 0}},
              {{1, 0}, {1, 1}},
              {{1, 1}, {0, 1}},
              {{0.3, 1}, {1, 2}}};
    case 'T':
      return {{{0, 0}, {1, 0}}, {{0.5, 0}, {0.5, 2}}};
    default:
      return {};
  }
}

Strokes Word(std::string_view word, Point top_left, double letter_height) {
  const double scale = letter_height / 2.0;
  const double advance = 1.5 * scale;
  std::vector<Segment> segments;
  Point corner = top_left;
  for (const char letter : word) {
    for (const Segment& s : Letter(letter)) {
      segments.push_back({{corner.x + scale * s.from.x, corner.y + scale * s.from.y},
                          {corner.x + scale * s.to.x, corner.y + scale * s.to.y}});
    }
    corner.x += advance;
  }
  return Strokes(std::move(segments));
}

double SmoothStep(double t) {
  const double s = std::clamp(t, 0.0, 1.0);
  return s * s * (3.0 - 2.0 * s);
}

// A flat-topped ridge around a line: full height up to half_width, gone at half_width + edge. The
// steepest slope, in the middle of the edge, is 1.
double Ridge(double distance, double half_width, double edge) {
  return edge / 1.5 * SmoothStep((half_width + edge - distance) / edge);
}

// (1 - r^2)^2, whose steepest slope, at r = 1 / sqrt(3), is scaled to 1.
double Bump(double distance, double radius) {
  const double r = distance / radius;
  if (r >= 1.0) return 0.0;
  constexpr double kSteepest = 1.5396007178390020;  // 8 / (3 sqrt(3))
  const double fall = 1.0 - r * r;
  return radius / kSteepest * fall * fall;
}

bool IsOdd(double cell) { return std::fmod(std::floor(cell), 2.0) != 0.0; }

}  // namespace

double ReliefHeight(double x, double y) {
  constexpr double kStroke = 0.03;
  constexpr double kEdge = 0.07;
  constexpr double kReach = kStroke + kEdge;
  constexpr Point kRing = {1.3, -0.8};
  static const Strokes word = Word("RELIEF", {-1.75, -1.15}, 0.56);
  static const Strokes star({Segment{{1.08, -0.8}, {1.52, -0.8}},
                             {{1.19, -0.99}, {1.41, -0.61}},
                             {{1.41, -0.99}, {1.19, -0.61}}});
  static const Strokes scratch({Segment{{0.95, 1.2}, {1.75, 0.15}}});

  const Point p = {x, y};
  return Ridge(word.DistanceWithin(kReach, p), kStroke, kEdge) +
         Ridge(std::abs(Distance(p, kRing) - 0.45), kStroke, kEdge) +
         Ridge(star.DistanceWithin(kReach, p), kStroke, kEdge) +
         Bump(Distance(p, Point{-1.15, 0.6}), 0.7) - Bump(Distance(p, Point{0.2, 0.65}), 0.45) -
         Ridge(scratch.DistanceWithin(0.04, p), 0.0, 0.04);
}

double PrintAlbedo(double x, double y) {
  constexpr double kPaper = 0.9;
  constexpr double kInk = 0.35;
  constexpr double kTint = 0.55;
  constexpr double kLine = 0.045;
  static const Strokes word = Word("PRINT", {-1.5, -0.8}, 0.68);

  const Point p = {x, y};
  if (word.DistanceWithin(2.0 * kLine, p) < kLine) return kInk;
  if (std::abs(Distance(p, Point{0.5, 0.8}) - 0.4) < kLine) return kInk;
  const bool has_checks = x > -2.0 && x < -0.7 && y > 0.1 && y < 1.5;
  if (has_checks && IsOdd(x / 0.2) != IsOdd(y / 0.2)) return kTint;
  const bool has_stripes = x > 0.85 && x < 2.0 && y > -1.5 && y < 1.5;
  if (has_stripes && IsOdd((x + 0.5 * y) / 0.11)) return kTint;
  return kPaper;
}

}  // namespace velostrix::scene
