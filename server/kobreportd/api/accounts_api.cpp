// The accounts through /api/, for an admin token: the list, adding a
// person (with the same password rules as the pages), roles, disabling
// people and tokens, and deleting people.  Bodies are form fields, as the pages send them.

#include <nlohmann/json.hpp>

#include "clock.h"
#include "kobtriage.h"
#include "staff.h"

namespace kobreportd {

namespace {

using Json = nlohmann::ordered_json;

void json(Response &res, int status, const Json &body) {
    res.status = status;
    res.setContent(kobtriage::dumpJson(body), "application/json");
}

void refused(Response &res, Change c) {
    json(res, c == Change::LastAdmin ? 409 : 404,
         Json{{"error", c == Change::LastAdmin ? kLastAdmin : "no such user"}});
}

} // namespace

void Staff::addAccountApi(RouteTable &table) {
    api(table, Method::Get, "/api/accounts", Role::Admin,
        [this](const Request &, Response &res, const Principal &) {
            Json users = Json::array(), tokens = Json::array();
            for (const auto &a : accounts_.users())
                users.push_back(Json{
                    {"name", a.name},
                    {"role", roleName(a.role)},
                    {"disabled", a.disabled},
                    {"created_at", isoTime(a.created_at)},
                    {"last_signin", a.last_signin ? Json(isoTime(a.last_signin)) : Json(nullptr)}});
            for (const auto &a : accounts_.tokens())
                tokens.push_back(Json{{"name", a.name},
                                      {"role", roleName(a.role)},
                                      {"disabled", a.disabled},
                                      {"created_at", isoTime(a.created_at)}});
            json(res, 200, Json{{"users", std::move(users)}, {"tokens", std::move(tokens)}});
            res.unmasked = true; // account names only
        });
    api(table, Method::Post, "/api/accounts", Role::Admin,
        [this](const Request &req, Response &res, const Principal &who) {
            std::string name = req.param("name"), password = req.param("password");
            auto role = parseRole(req.param("role"));
            if (!Accounts::validName(name) || !role || *role == Role::Metrics) {
                json(res, 400,
                     Json{{"error", "a name of letters, digits and . _ - @ and a role "
                                    "(viewer or admin) are needed"}});
                return;
            }
            if (std::string why = passwordRules_.problem(password, name); !why.empty()) {
                json(res, 400, Json{{"error", why}});
                return;
            }
            try {
                accounts_.addUser(name, *role, password);
            } catch (const StoreError &) {
                json(res, 409, Json{{"error", name + " exists already"}});
                return;
            }
            audit_.record(who.account, req.client_address, "user.added", "",
                          name + " (" + roleName(*role) + ")");
            json(res, 201, Json{{"added", name}, {"role", roleName(*role)}});
        });
    api(table, Method::Post, "/api/accounts/{name}/role", Role::Admin,
        [this](const Request &req, Response &res, const Principal &who) {
            std::string name = req.matches[1];
            auto role = parseRole(req.param("role"));
            if (!role || *role == Role::Metrics) {
                json(res, 400, Json{{"error", "the role is viewer or admin"}});
                return;
            }
            Change c = accounts_.setRole(name, *role);
            if (c != Change::Done)
                return refused(res, c);
            audit_.record(who.account, req.client_address, "user.role.changed", "",
                          name + " (" + roleName(*role) + ")");
            json(res, 200, Json{{"name", name}, {"role", roleName(*role)}});
        });
    for (bool off : {true, false})
        api(table, Method::Post,
            off ? "/api/accounts/{name}/disable" : "/api/accounts/{name}/enable", Role::Admin,
            [this, off](const Request &req, Response &res, const Principal &who) {
                std::string name = req.matches[1];
                Change c = accounts_.setDisabled(name, off);
                if (c != Change::Done)
                    return refused(res, c);
                audit_.record(who.account, req.client_address,
                              off ? "user.disabled" : "user.enabled", "", name);
                json(res, 200, Json{{off ? "disabled" : "enabled", name}});
            });
    for (bool off : {true, false})
        api(table, Method::Post, off ? "/api/tokens/{name}/disable" : "/api/tokens/{name}/enable",
            Role::Admin, [this, off](const Request &req, Response &res, const Principal &who) {
                std::string name = req.matches[1];
                if (!accounts_.setTokenDisabled(name, off)) {
                    json(res, 404, Json{{"error", "no such token"}});
                    return;
                }
                audit_.record(who.account, req.client_address,
                              off ? "token.disabled" : "token.enabled", "", name);
                json(res, 200, Json{{off ? "disabled" : "enabled", name}});
            });
    api(table, Method::Delete, "/api/accounts/{name}", Role::Admin,
        [this](const Request &req, Response &res, const Principal &who) {
            std::string name = req.matches[1];
            Change c = accounts_.deleteUser(name);
            if (c != Change::Done)
                return refused(res, c);
            audit_.record(who.account, req.client_address, "user.deleted", "", name);
            json(res, 200, Json{{"deleted", name}});
        });
}

} // namespace kobreportd
