#include "view/map.h"

#include <algorithm>
#include <bit>
#include <cmath>

static constexpr float MIN_SIDE = 20;  // of the world's units
static constexpr float MARGIN = 1.3F;  // of a new square around the outermost players
static constexpr float ROOMY = 0.4F;   // of the side, when a new square would be smaller than that
static constexpr std::uint64_t CALM_MS = 5'000;

std::optional<MapPoint> place_of(const Position& position) {
  const auto x = std::bit_cast<float>(position[0]);
  const auto y = std::bit_cast<float>(position[1]);
  const bool is_place = std::fabs(x) <= MAX_COORDINATE && std::fabs(y) <= MAX_COORDINATE;
  return is_place ? std::optional<MapPoint>({x, y}) : std::nullopt;
}

struct Box {
  MapPoint low{MAX_COORDINATE, MAX_COORDINATE};
  MapPoint high{-MAX_COORDINATE, -MAX_COORDINATE};
};

// Contains the players with a known place. Without any, low is above high.
static Box box_of(const GamePicture& picture) {
  Box box;
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    const PlayerPicture& player = picture.players[slot];
    const auto place = place_of(player.state.position);
    if (!player.has_record || slot == picture.own_slot || !place) continue;
    box.low = {std::min(box.low.x, place->x), std::min(box.low.y, place->y)};
    box.high = {std::max(box.high.x, place->x), std::max(box.high.y, place->y)};
  }
  return box;
}

static bool holds(const MapView& view, const Box& box) {
  const float half = view.side / 2;
  return box.low.x >= view.middle.x - half && box.high.x <= view.middle.x + half &&
         box.low.y >= view.middle.y - half && box.high.y <= view.middle.y + half;
}

void fit_view(MapView& view, const GamePicture& picture, std::uint64_t now_ms) {
  const Box box = box_of(picture);
  if (box.low.x > box.high.x) return;
  const float needed = std::max(box.high.x - box.low.x, box.high.y - box.low.y);
  const float side = std::max(needed, MIN_SIDE) * MARGIN;
  const bool is_roomy = side < ROOMY * view.side;
  if (!is_roomy) view.roomy_since_ms = 0;
  if (is_roomy && view.roomy_since_ms == 0) view.roomy_since_ms = now_ms;
  const bool shrinks = is_roomy && now_ms - view.roomy_since_ms >= CALM_MS;
  if (holds(view, box) && !shrinks) return;
  const MapPoint middle{(box.low.x + box.high.x) / 2, (box.low.y + box.high.y) / 2};
  // A player that leaves the map on one side moves it, and does not change the scale.
  view = {.middle = middle, .side = shrinks ? side : std::max(side, view.side)};
}

MapCell cell_of(const MapView& view, MapPoint point, int columns, int rows) {
  const auto narrow = static_cast<float>(std::min(columns, 2 * rows));
  const float columns_each = view.side > 0 ? narrow / view.side : 0;
  const float right = (point.x - view.middle.x) * columns_each;
  const float up = (point.y - view.middle.y) * columns_each / 2;
  const auto column = std::floor(static_cast<float>(columns) / 2 + right);
  const auto row = std::floor(static_cast<float>(rows) / 2 - up);
  return {std::clamp(static_cast<int>(column), 0, std::max(columns - 1, 0)),
          std::clamp(static_cast<int>(row), 0, std::max(rows - 1, 0))};
}
