// Where players stand on a map of so many columns and rows.
#pragma once

#include <cstdint>
#include <optional>

#include "client/game_picture.h"

using namespace zol;

// What lies farther out, like what is no number, is taken for no place: broken clients make it up.
inline constexpr float MAX_COORDINATE = 1e6F;

struct MapPoint {
  float x = 0;
  float y = 0;
};

// The first two of the three values.
std::optional<MapPoint> place_of(const Position& position);

// The square of the world that the map shows. It moves when somebody leaves it. It shrinks only
// after a much smaller one would have done for some seconds, so that the scale stays calm.
struct MapView {
  MapPoint middle{};
  float side = 0;                    // 0: there was nobody to show yet
  std::uint64_t roomy_since_ms = 0;  // 0: a smaller one would not do
};

void fit_view(MapView& view, const GamePicture& picture, std::uint64_t now_ms);

struct MapCell {
  int column = 0;
  int row = 0;
};

// The cell of a point. The second axis goes up, and a row is as high as two columns are wide. What
// lies outside gets a cell at the edge.
MapCell cell_of(const MapView& view, MapPoint point, int columns, int rows);
