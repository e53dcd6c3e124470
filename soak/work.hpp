#pragma once

// What is done at random. Each function is one operation; it waits for what it started, and throws
// Failure when something did not happen.

#include "objects.hpp"
#include "random.hpp"
#include "tally.hpp"
#include "world.hpp"

#include <functional>
#include <string>
#include <vector>

namespace soak
{

// What every operation may use.
struct Scene
{
    World& world;
    Objects& objects;
    Random& random;
    Tally& tally;
};

struct Operation
{
    const char* name;
    size_t weight; // how often it comes, compared with the others
    void (*run)(Scene& scene);
};

// Steps of the machine, questions, direct reads, services that go and return, the bus that does.
std::vector<Operation> BusOperations();
// Channel, funnel and pool.
std::vector<Operation> ThreadOperations();
// Forked children; empty, with a line that says why, where the program is built so that they would
// not survive.
std::vector<Operation> ForkOperations();

// A question to the object mapper or an object, without waiting; AwaitAnswers() waits for those
// that are open, ForgetQuestions() says that there will be no answers.
void AwaitAnswers(World& world);
void ForgetQuestions();

// Reads a property of the fans by a direct call on the calling thread's connection.
bool ReadDirectly(const Place& fans);

} // namespace soak
