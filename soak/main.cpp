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
    }

    // Each operation once, so that what is made on first use is there; then at random.
    bool All()
    {
        for (const Operation& operation : operations)
        {
            Perform(operation);
        }
        const auto end = Clock::now() + std::chrono::duration<double>(options.minutes * 60);
        while (Clock::now() < end)
        {
            const auto part = Clock::now() + std::chrono::duration<double>(options.secondsPerCheck);
            while (Clock::now() < part && !Interrupted())
            {
                Perform(Any());
            }
            if (Interrupted() || !Check())
            {
                return false;
            }
        }
        return true;
    }

    void SumUp() const
    {
        std::cout << "operations: " << total.Text() << '\n'
                  << "checks: " << number << ", values compared: " << compared
                  << ", callbacks: " << Callbacks()
                  << ", error lines in the log: " << test::ErrorLines() << '\n';
        if (first)
        {
            std::cout << "first: " << first->Text() << '\n' << "last:  " << last.Text() << '\n';
        }
    }

  private:
    const Operation& Any()
    {
        size_t choice = random.Below(weights);
        const Operation* operation = operations.data();
        while (choice >= operation->weight)
        {
            choice -= operation->weight;
            ++operation;
        }
        return *operation;
    }

    void Perform(const Operation& operation)
    {
        Begin(operation.name);
        Scene scene{world, objects, random, tally};
        operation.run(scene);
        world.Turn();
        tally.Add(operation.name);
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
        std::cout << "check " << number << ": " << tally.Text() << "; values compared " << values
                  << "; " << last.Text() << ": " << (growth.empty() ? "flat" : "NOT FLAT" + growth)
                  << std::endl;
        total.Add(tally);
        tally.Clear();
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
    std::string verdict = "soak: passed";
    {
        Run run(options);
        try
        {
            verdict = run.All() ? verdict : "soak: FAILED: not flat";
        }
        catch (const std::exception& failure)
        {
            verdict = "soak: FAILED: " + std::string(failure.what());
        }
        if (Interrupted())
        {
            verdict = "soak: interrupted";
        }
        run.SumUp();
    }
    Rest();
    std::cout << verdict << std::endl;
    return verdict == "soak: passed" ? EXIT_SUCCESS : EXIT_FAILURE;
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
