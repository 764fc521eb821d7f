// Places players on a map of character cells. Only one thread at a time may use a MapView.
#pragma once

#include <cstdint>
#include <optional>

#include "client/game_picture.h"

using namespace zol;

// In units of the world. Broken clients send larger coordinates, infinities and NaNs; such a
// position is not shown.
inline constexpr float MAX_COORDINATE = 1e6F;

struct MapPoint {
  float x = 0;
  float y = 0;
};

// Uses the first two of the three coordinates. Nothing for a position that cannot be shown.
std::optional<MapPoint> map_point_of(const Position& position);

// The square of the world that the map shows. It moves when a player leaves it. It shrinks when a
// much smaller square has been enough for five seconds, so that the scale changes rarely.
struct MapView {
  MapPoint middle{};
  float side = 0;                        // units of the world; 0: no player was shown yet
  std::uint64_t oversized_since_ms = 0;  // 0: the square is not much too large
};

void fit_view(MapView& view, const GamePicture& picture, std::uint64_t now_ms);

struct MapCell {
  int column = 0;
  int row = 0;
};

// The cell of a point. The second axis points up. A row is twice as high as a column is wide. A
// point outside the square gets a cell at the edge.
MapCell cell_of(const MapView& view, MapPoint point, int columns, int rows);
