#pragma once

// How live values are shown: redrawn in place on a terminal, line by line elsewhere.

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace demo
{

// What there is to see at one moment.
struct Scene
{
    std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>> fans;
    std::deque<double> watts; // what the machine took lately, the newest last
    bool fansReady = false;
    bool powerReady = false;
    unsigned int fanSignals = 0;
    unsigned int powerSignals = 0;
    unsigned int dataSignals = 0;  // of the subscribers
    std::vector<std::string> live; // the account of the live objects, a table
    std::string happening;         // what the demo is about to show
};

class Picture
{
  public:
    virtual ~Picture() = default;
    virtual void Draw(const Scene& scene) = 0;
};

// For the standard output of this process.
std::unique_ptr<Picture> MakePicture();

} // namespace demo
