#include "view/map.h"

#include <algorithm>
#include <bit>
#include <cmath>

static constexpr float MIN_SIDE = 20;  // units of the world
static constexpr float MARGIN = 1.3F;  // side of a new square, divided by the extent of the players
static constexpr float SHRINK_RATIO = 0.4F;  // much smaller: below this part of the old side
static constexpr std::uint64_t SHRINK_DELAY_MS = 5'000;

std::optional<MapPoint> map_point_of(const Position& position) {
  const auto x = std::bit_cast<float>(position[0]);
  const auto y = std::bit_cast<float>(position[1]);
  const bool is_place = std::fabs(x) <= MAX_COORDINATE && std::fabs(y) <= MAX_COORDINATE;
  return is_place ? std::optional<MapPoint>({x, y}) : std::nullopt;
}

struct Box {
  MapPoint low{MAX_COORDINATE, MAX_COORDINATE};
  MapPoint high{-MAX_COORDINATE, -MAX_COORDINATE};
};

// The bounding box of the players with a known place. Without such players, low.x > high.x.
static Box box_of(const GamePicture& picture) {
  Box box;
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    const PlayerPicture& player = picture.players[slot];
    const auto place = map_point_of(player.state.position);
    if (!player.has_record || slot == picture.own_slot || !place) continue;
    box.low = {std::min(box.low.x, place->x), std::min(box.low.y, place->y)};
    box.high = {std::max(box.high.x, place->x), std::max(box.high.y, place->y)};
  }
  return box;
}

static bool contains(const MapView& view, const Box& box) {
  const float half = view.side / 2;
  return box.low.x >= view.middle.x - half && box.high.x <= view.middle.x + half &&
         box.low.y >= view.middle.y - half && box.high.y <= view.middle.y + half;
}

void fit_view(MapView& view, const GamePicture& picture, std::uint64_t now_ms) {
  const Box box = box_of(picture);
  if (box.low.x > box.high.x) return;
  const float needed = std::max(box.high.x - box.low.x, box.high.y - box.low.y);
  const float side = std::max(needed, MIN_SIDE) * MARGIN;
  const bool is_oversized = side < SHRINK_RATIO * view.side;
  if (!is_oversized) view.oversized_since_ms = 0;
  if (is_oversized && view.oversized_since_ms == 0) view.oversized_since_ms = now_ms;
  const bool shrinks = is_oversized && now_ms - view.oversized_since_ms >= SHRINK_DELAY_MS;
  if (contains(view, box) && !shrinks) return;
  const MapPoint middle{(box.low.x + box.high.x) / 2, (box.low.y + box.high.y) / 2};
  // When a player leaves the square, the square moves, and keeps its size if that is enough.
  view = {.middle = middle, .side = shrinks ? side : std::max(side, view.side)};
}

MapCell cell_of(const MapView& view, MapPoint point, int columns, int rows) {
  const auto narrow = static_cast<float>(std::min(columns, 2 * rows));
  const float columns_per_unit = view.side > 0 ? narrow / view.side : 0;
  const float right = (point.x - view.middle.x) * columns_per_unit;
  const float up = (point.y - view.middle.y) * columns_per_unit / 2;
  const auto column = std::floor(static_cast<float>(columns) / 2 + right);
  const auto row = std::floor(static_cast<float>(rows) / 2 - up);
  return {std::clamp(static_cast<int>(column), 0, std::max(columns - 1, 0)),
          std::clamp(static_cast<int>(row), 0, std::max(rows - 1, 0))};
}
