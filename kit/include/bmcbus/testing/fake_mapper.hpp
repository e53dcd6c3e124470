#pragma once

/**
 * @file
 * The object mapper of a test.
 */

#include <bmcbus/testing/fake_service.hpp>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/**
 * Which services have which interfaces at which paths, and the object mapper's answers to that.
 *
 * Belongs to one thread at a time.
 */
class MapperTable
{
  public:
    /** Adds @p interfaces of @p service at @p path to what is there. */
    void Add(const std::string& path, const std::string& service,
             const std::vector<std::string>& interfaces);

    /** Forgets what @p service has at @p path (at all paths when it is empty). */
    void Remove(const std::string& service, const std::string& path = {});

    /**
     * Answers GetObject, GetSubTree, GetSubTreePaths or GetAncestors as the object mapper does.
     *
     * Throws CallError: "xyz.openbmc_project.Common.Error.ResourceNotFound" for an unknown path and
     * for GetObject without result.
     */
    std::vector<Value> Answer(const Call& call) const;

  private:
    using Services = std::map<std::string, std::vector<std::string>>;
    using Wanted = std::vector<std::string>;

    static Services Matching(const Services& services, const Wanted& wanted);
    Value Object(const std::string& path, const Wanted& wanted) const;
    std::map<std::string, Services> Below(const std::string& path, int depth,
                                          const Wanted& wanted) const;
    std::map<std::string, Services> Above(const std::string& path, const Wanted& wanted) const;
    void Require(const std::string& path) const;

    std::map<std::string, Services> table;
};

/**
 * The object mapper service "xyz.openbmc_project.ObjectMapper" on its own thread, answering from a
 * table that the test fills; faults and memory are those of FakeService.
 *
 * @code
 * FakeMapper mapper;
 * mapper.Add("/fans", "com.example.Fans", {"com.tamm.bmc.Thermal.FanReporting"});
 * mapper.On("GetObject").ReplyError("org.freedesktop.DBus.Error.Timeout");
 * @endcode
 */
class FakeMapper : public FakeService
{
  public:
    /** Connects as Service does. */
    FakeMapper();

    /**
     * See MapperTable::Add(). Says "IntrospectionComplete" then, as the real one does when it has
     * looked at a service. Any thread.
     */
    void Add(const std::string& path, const std::string& service,
             const std::vector<std::string>& interfaces);

    /** See MapperTable::Remove(). Any thread. */
    void Remove(const std::string& service, const std::string& path = {});

  private:
    std::shared_ptr<MapperTable> table;
};

/** Bus name and interface of the object mapper. */
inline constexpr const char* mapperName = "xyz.openbmc_project.ObjectMapper";
/** Object path of the object mapper. */
inline constexpr const char* mapperPath = "/xyz/openbmc_project/object_mapper";

/** The object mapper's interface, anew for each caller; any thread may call it. */
InterfaceDescription MapperInterface();

} // namespace bmcbus::testing
