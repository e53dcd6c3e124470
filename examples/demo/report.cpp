// Counts what happened against what was promised.

#include "report.hpp"

#include <iostream>

namespace demo
{

void Report::Title(const std::string& text)
{
    std::cout << "\n== " << text << std::endl;
}

void Report::Line(const std::string& text)
{
    std::cout << "   " << text << std::endl;
}

void Report::Expect(const std::string& text, bool happened)
{
    ++expected;
    missed += happened ? 0 : 1;
    Line((happened ? "ok      " : "MISSING ") + text);
}

bool Report::Verdict() const
{
    std::cout << "\n" << expected - missed << " of " << expected << " things happened" << std::endl;
    return missed == 0;
}

} // namespace demo
