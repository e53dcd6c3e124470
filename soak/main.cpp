// Loads the library for as long as one likes with everything that comes and goes in a client's
// life, and checks at every turn that its values are right and that it keeps nothing.

#include "classes.hpp"
#include "counting_sink.hpp"
#include "guard.hpp"
#include "measure.hpp"
#include "work.hpp"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdlib>
#include <iostream>

namespace soak
{
namespace
{

using Clock = std::chrono::steady_clock;

struct Options
{
    double minutes = 60;
    double secondsPerCheck = 60;
    uint64_t seed = 1;
    Allowance allowance;
};

enum class Verdict
{
    passed,
    failed,
    interrupted
};

// "creations 73, releases 60, ... tasks 345"
std::string Text(const Tally& tally, const std::vector<Operation>& operations)
{
    std::string text;
    const auto add = [&](const std::string& name, size_t count)
    { text += count == 0 ? "" : (text.empty() ? "" : ", ") + name + " " + std::to_string(count); };
    for (size_t i = 0; i < tally.done.size(); ++i)
    {
        add(operations[i].name, tally.done[i]);
    }
    add("posts", tally.posts);
    add("sends", tally.sends);
    add("tasks", tally.tasks);
    return text;
}

class Run
{
  public:
    explicit Run(const Options& chosen) :
        options(chosen), random(chosen.seed), world(chosen.seed), objects(world, random)
    {
        Guard(world.Bus().Folder());
        for (const auto& part : {BusOperations(), ThreadOperations(), ForkOperations()})
        {
            operations.insert(operations.end(), part.begin(), part.end());
        }
        for (const Operation& operation : operations)
        {
            weights += operation.weight;
        }
        tally.done.resize(operations.size());
    }

    // Each operation once, so that what is made on first use is there; then at random.
    Verdict All()
    {
        for (size_t i = 0; i < operations.size(); ++i)
        {
            Perform(i);
        }
        const auto end = Clock::now() + std::chrono::duration<double>(options.minutes * 60);
        while (Clock::now() < end)
        {
            const auto part = Clock::now() + std::chrono::duration<double>(options.secondsPerCheck);
            while (Clock::now() < part && !Interrupted())
            {
                Perform(Any());
            }
            if (Interrupted())
            {
                return Verdict::interrupted;
            }
            if (!Check())
            {
                return Verdict::failed;
            }
        }
        return Verdict::passed;
    }

    void SumUp() const
    {
        std::cout << "operations: " << Text(total, operations) << '\n'
                  << "checks: " << number << ", values compared: " << compared
                  << ", callbacks: " << Callbacks()
                  << ", error lines in the log: " << test::ErrorLines() << '\n';
        if (first)
        {
            std::cout << "first: " << first->Text() << '\n' << "last:  " << last.Text() << '\n';
        }
    }

  private:
    // The number of an operation.
    size_t Any()
    {
        size_t choice = random.Below(weights);
        size_t i = 0;
        while (choice >= operations[i].weight)
        {
            choice -= operations[i].weight;
            ++i;
        }
        return i;
    }

    void Perform(size_t i)
    {
        const Operation& operation = operations[i];
        Begin(operation.name);
        Scene scene{world, objects, random, tally};
        operation.run(scene);
        world.Turn();
        ++tally.done[i];
    }

    // Everything at rest: values, then what is held once all objects are released.
    bool Check()
    {
        Begin("check");
        world.StartAllServices();
        AwaitAnswers(world);
        objects.CreateOneOfEach();
        const size_t values = objects.Compare();
        objects.ReleaseAll();
        last = MeasureSettled(world, first);
        first = first.value_or(last);
        const std::string growth = last.GrowthSince(*first, options.allowance);
        ++number;
        std::cout << "check " << number << ": " << Text(tally, operations) << "; values compared "
                  << values << "; " << last.Text() << ": "
                  << (growth.empty() ? "flat" : "NOT FLAT" + growth) << std::endl;
        total += tally;
        tally = {.done = std::vector<size_t>(operations.size())};
        compared += values;
        return growth.empty();
    }

    const Options options;
    Random random;
    World world;
    Objects objects;
    std::vector<Operation> operations;
    size_t weights = 0;
    Tally tally;
    Tally total;
    size_t number = 0;
    size_t compared = 0;
    std::optional<Figures> first;
    Figures last;
};

int Soak(const Options& options)
{
    std::cout << "seed " << options.seed << ", " << options.minutes << " minutes, a check every "
              << options.secondsPerCheck << " seconds" << std::endl;
    Verdict verdict = Verdict::failed;
    std::string why = "not flat";
    {
        Run run(options);
        try
        {
            verdict = run.All();
        }
        catch (const std::exception& failure)
        {
            why = failure.what();
        }
        if (Interrupted())
        {
            verdict = Verdict::interrupted;
        }
        run.SumUp();
    }
    Rest();
    std::cout << (verdict == Verdict::passed        ? "soak: passed"
                  : verdict == Verdict::interrupted ? "soak: interrupted"
                                                    : "soak: FAILED: " + why)
              << std::endl;
    return verdict == Verdict::passed ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace
} // namespace soak

int main(int argc, char** argv)
{
    soak::Options options;
    CLI::App app("Loads the library at random, and checks that it stays right and keeps nothing.",
                 "soak");
    app.add_option("--minutes", options.minutes, "How long (60)")
        ->check(CLI::Range(0.01, 100000.0))
        ->option_text("N");
    app.add_option("--seconds-per-check", options.secondsPerCheck, "Time between checks (60)")
        ->check(CLI::Range(0.1, 3600.0))
        ->option_text("N");
    app.add_option("--seed", options.seed, "Start of the random choices (1)")->option_text("N");
    app.add_option("--resident-allowance", options.allowance.residentKb,
                   "Resident memory that may be added after the first check (4096)")
        ->option_text("KB");
    CLI11_PARSE(app, argc, argv);
    try
    {
        return soak::Soak(options);
    }
    catch (const std::exception& failure)
    {
        std::cerr << "soak: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
