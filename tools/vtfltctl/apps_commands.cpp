// apps: who is registered, and who is to be.
#include "common/application_id.h"
#include "library.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <memory>

namespace vtfltctl {
namespace {

Exit ListApplications(const Context& context)
{
    Json applications = Json::array();
    std::string text;
    for (const std::wstring& application : RegisteredApplications()) {
        applications.push_back(ToUtf8(application));
        text += ToUtf8(application) + "\n";
    }
    if (text.empty())
        text = "No application is registered.\n";
    return Answer(context, Exit::Ok, {{"applications", applications}}, text);
}

Exit RegisterApplication(const Context& context, const std::wstring& application)
{
    if (application.empty())
        throw Failure(Exit::Usage, "the application ID is empty");
    const std::vector<std::wstring> registered = RegisteredApplications();
    if (const std::string reason = toolkit::UnsuitableBecause(application, registered); !reason.empty())
        throw Failure(Exit::Refused, fmt::format("application ID {} is refused: {}", Quoted(application), reason));
    const bool already = IsRegistered(application);
    Require(VTRegisterApplication(application.c_str()), fmt::format("register {}", Quoted(application)));
    // The library answers 0 for an ID that it found as another entry's tail and did not add.
    if (!IsRegistered(application))
        throw Failure(Exit::Refused, fmt::format("application {} was not registered: its ID is found in another one's",
                                                 Quoted(application)));
    return Answer(context, Exit::Ok, {{"application", ToUtf8(application)}, {"changed", !already}},
                  fmt::format("Application {} {}.\n", Quoted(application),
                              already ? "is registered already; nothing was changed"
                                      : "is registered, with fresh bitmaps on every fixed volume"));
}

Exit UnregisterApplication(const Context& context, const std::wstring& application)
{
    RequireRegistered(application);
    RequireYes(context, fmt::format("would unregister {} and delete its bitmap files on every fixed volume",
                                    Quoted(application)));
    Require(VTUnregisterApplication(application.c_str()), fmt::format("unregister {}", Quoted(application)));
    return Answer(context, Exit::Ok, {{"application", ToUtf8(application)}, {"changed", true}},
                  fmt::format("Application {} is unregistered and its bitmap files are deleted. Its verify list stays "
                              "and names every volume.\n",
                              Quoted(application)));
}

} // namespace

void AddAppsCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "apps", "The registered applications");
    AddCommand(group, context, "list", "List the registered applications, in the order of registration",
               [&context] { return ListApplications(context); });

    const auto id = std::make_shared<std::string>();
    CLI::App& add = AddCommand(group, context, "register",
                               "Register an application and give it fresh bitmaps on every fixed volume",
                               [&context, id] { return RegisterApplication(context, ToWide(*id)); });
    add.add_option("APP", *id, "application ID, taken exactly")->required();
    CLI::App& remove = AddCommand(group, context, "unregister",
                                  "Unregister an application and delete its bitmap files on every fixed volume",
                                  [&context, id] { return UnregisterApplication(context, ToWide(*id)); });
    remove.add_option("APP", *id, "application ID, compared exactly")->required();
    AddYes(remove, context, "the application's bitmap files");
}

} // namespace vtfltctl
