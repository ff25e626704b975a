#pragma once

// Looking at an X screen the way a person would: a grab of the whole screen
// with screen-grab (as the demo takes its screenshot), and how much of
// kyr-sim's test picture an area of it shows.

#include <QImage>
#include <QRect>

#include <string>

namespace velorane::test {

// The whole screen of the display, saved to path; a null image when the
// grab failed.
QImage GrabScreen(const std::string& display, const std::string& path);
// The area of the root window, which may lie outside every screen Qt knows
// (an output-less monitor's area), saved to path.
QImage GrabArea(const std::string& display, const QRect& area, const std::string& path);

// kyr-sim's picture is eight full-height bars: white, yellow, cyan, green,
// magenta, red, blue, black. Answers how many of them the area shows.
int BarsShown(const QImage& screen, const QRect& area);

} // namespace velorane::test
