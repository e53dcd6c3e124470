#pragma once

// What the demo tells, and whether everything that it promised happened.

#include <string>

namespace demo
{

// Where the library's own lines go while the demo runs; see log.cpp.
void KeepLog(bool keep);

// The last `count` lines that were kept.
std::string LastLog(size_t count);

class Report
{
  public:
    // A new chapter.
    void Title(const std::string& text);

    // One line.
    void Line(const std::string& text);

    // A line that says whether something happened; the demo fails when it did not.
    void Expect(const std::string& text, bool happened);

    // Whether everything happened so far, with a line that says so.
    bool Verdict() const;

  private:
    int expected = 0;
    int missed = 0;
};

} // namespace demo
