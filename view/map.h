// The position of players on a map of a given number of columns and rows.
#pragma once

#include <cstdint>
#include <optional>

#include "client/game_picture.h"

using namespace zol;

// Broken clients send farther coordinates, infinities and NaNs. They do not count as a place.
inline constexpr float MAX_COORDINATE = 1e6F;

struct MapPoint {
  float x = 0;
  float y = 0;
};

// Uses the first two of the three values. None if the place is unknown.
std::optional<MapPoint> place_of(const Position& position);

// The square of the world that the map shows. It moves when a player leaves it. It shrinks only
// after a much smaller square would have been enough for some seconds, so that the scale is stable.
struct MapView {
  MapPoint middle{};
  float side = 0;                    // 0: no player was shown yet
  std::uint64_t roomy_since_ms = 0;  // 0: a smaller square is not enough
};

void fit_view(MapView& view, const GamePicture& picture, std::uint64_t now_ms);

struct MapCell {
  int column = 0;
  int row = 0;
};

// The cell of a point. The second axis points up, and a row is as high as two columns are wide. A
// point outside gets a cell at the edge.
MapCell cell_of(const MapView& view, MapPoint point, int columns, int rows);
