// The sample part: its relief and its print, at any point.
#pragma once

namespace velostrix::scene {

// The part fills a frame of 4 x 3 units: x from -2 (left) to 2, y from -1.5 (top) to 1.5. It
// continues outside, flat and unprinted.

// Height in units, above the flat part: the embossed word RELIEF, an embossed ring with a star, a
// dome, a dent and a scratch. The steepest slope is 1.
double ReliefHeight(double x, double y);

// Reflectance, 0.35 to 0.9: the printed word PRINT, checks, stripes and a circle. They cross the
// relief and do not follow it, so that print and relief cannot be confused.
double PrintAlbedo(double x, double y);

}  // namespace velostrix::scene
