#include "budget.h"

#include <sys/resource.h>

#include <algorithm>
#include <utility>

namespace talvex::sim {

namespace {

constexpr size_t kPerClientCaps = 4096;   // user clients, interests
constexpr size_t kMaxHubPerClient = size_t{512} << 20;

size_t index(Resource r) { return static_cast<size_t>(r); }

// A quarter of the total goes to floors, the rest to the pool.
ResourceLimit split(size_t total, size_t floor, size_t per_client) {
    ResourceLimit l;
    l.total = total;
    l.floor = floor;
    l.pool = total - total / 4;
    l.per_client = std::max(per_client, floor);
    return l;
}

size_t finite(rlim_t v) { return v == RLIM_INFINITY ? SIZE_MAX : static_cast<size_t>(v); }

}  // namespace

std::string_view resource_name(Resource r) {
    switch (r) {
    case Resource::Descriptors: return "descriptors";
    case Resource::Buffers: return "buffered bytes";
    case Resource::HubMemory: return "hub buffer bytes";
    case Resource::UserClients: return "user clients";
    case Resource::Interests: return "interests";
    }
    return "?";
}

BudgetLimits BudgetLimits::derive(size_t memory, size_t descriptors) {
    BudgetLimits b;
    b.memory = std::max(memory, kMinMemoryBudget);
    b.descriptors = std::max(descriptors, kMinDescriptors);
    // Descriptors: a reserve for the listening socket, the wake pipe, the
    // standard streams, a region in the making and refusing connections.
    size_t reserve = 32 + b.descriptors / 64;
    size_t usable = b.descriptors - reserve;
    auto &fds = b.resources[index(Resource::Descriptors)];
    fds = split(usable, 4, 0);
    fds.pool = usable - usable / 2;   // connections need floors more than memory does
    fds.per_client = fds.floor + fds.pool / 4;
    // Memory: 3/8 buffers, 3/8 hub buffers, 1/16 each user clients and
    // interests, at most 1/16 properties; the rest for everything else.
    size_t m = b.memory;
    b.resources[index(Resource::Buffers)] = split(m / 8 * 3, 64 << 10, m / 8 * 3);
    auto &hub = b.resources[index(Resource::HubMemory)];
    hub = split(m / 8 * 3, 64 << 10, 0);
    hub.per_client = std::min(kMaxHubPerClient, hub.floor + hub.pool / 4);
    b.resources[index(Resource::UserClients)] = split(m / 16 / kUserClientCost, 8, kPerClientCaps);
    b.resources[index(Resource::Interests)] = split(m / 16 / kInterestCost, 8, kPerClientCaps);
    b.max_clients = SIZE_MAX;
    for (const auto &l : b.resources) b.max_clients = std::min(b.max_clients, (l.total - l.pool) / l.floor);
    // Properties: bounded so that a service's whole property table (what
    // GetProperties answers) still fits one frame.
    b.property_total = std::min(m / 16, size_t{8} << 20);
    b.property_client = b.property_total / 2;
    b.property_value = b.property_total / 4;
    return b;
}

ProcessLimits process_limits() {
    ProcessLimits p;
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        if (rl.rlim_cur < rl.rlim_max) {
            rlimit raised = rl;
            raised.rlim_cur = rl.rlim_max;
            if (setrlimit(RLIMIT_NOFILE, &raised) == 0) rl = raised;
        }
        p.descriptors = std::min(finite(rl.rlim_cur), size_t{1} << 20);
    }
    size_t memory = SIZE_MAX;
    for (int resource : {RLIMIT_AS, RLIMIT_DATA})
        if (getrlimit(resource, &rl) == 0) memory = std::min(memory, finite(rl.rlim_cur));
    if (memory != SIZE_MAX) p.memory = memory / 2;
    return p;
}

Budget::Budget(const BudgetLimits &limits) : limits_(limits) {}

Budget::Charge &Budget::Charge::operator=(Charge &&other) noexcept {
    if (this != &other) {
        drop();
        budget_ = std::exchange(other.budget_, nullptr);
        account_ = std::exchange(other.account_, nullptr);
        resource_ = other.resource_;
        amount_ = std::exchange(other.amount_, 0);
    }
    return *this;
}

void Budget::Charge::drop() {
    if (!budget_) return;
    release();
    if (--account_->charges == 0 && account_->gone) budget_->accounts_.erase(account_->id);
    budget_ = nullptr;
    account_ = nullptr;
}

Budget::Charge Budget::open(ClientId client, Resource r) {
    Account &a = accounts_[client];
    a.id = client;
    a.gone = false;
    ++a.charges;
    Charge c;
    c.budget_ = this;
    c.account_ = &a;
    c.resource_ = r;
    return c;
}

Budget::Charge Budget::take(ClientId client, Resource r, size_t amount, Verdict &verdict) {
    Charge c = open(client, r);
    verdict = c.resize(amount);
    return c;
}

Verdict Budget::check(const Account &a, Resource r, size_t from, size_t to) const {
    const ResourceLimit &l = limits_[r];
    size_t used = a.used[index(r)];
    size_t now = used - from + to;
    if (now > l.per_client) return {false, true, l.per_client};
    size_t more = beyond(now, l.floor) - beyond(used, l.floor);
    if (more > pool_left(r)) return {false, false, l.total};
    return {};
}

void Budget::move(Account &a, Resource r, size_t from, size_t to) {
    size_t &used = a.used[index(r)];
    size_t floor = limits_[r].floor;
    size_t &pool = pool_used_[index(r)];
    pool -= beyond(used, floor);
    used = used - from + to;
    pool += beyond(used, floor);
}

size_t Budget::used(ClientId client, Resource r) const {
    auto it = accounts_.find(client);
    return it == accounts_.end() ? 0 : it->second.used[index(r)];
}

size_t Budget::pool_left(Resource r) const {
    size_t pool = limits_[r].pool, used = pool_used(r);
    return used >= pool ? 0 : pool - used;
}

void Budget::forget(ClientId client) {
    auto it = accounts_.find(client);
    if (it == accounts_.end()) return;
    if (it->second.charges == 0)
        accounts_.erase(it);
    else
        it->second.gone = true;
}

}  // namespace talvex::sim
