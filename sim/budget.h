// Budgets: how much of the simulator's descriptors and memory one client, and
// all clients together, may hold, so that no client can starve the others.
//
// Every resource has three figures. The floor is what every admitted client
// may always hold; the pool is what all clients together may hold beyond
// their floors; the per-client cap bounds one client's whole holding. At most
// max_clients clients are admitted, so the floors of all of them fit what is
// set aside for floors: a client that others have crowded out of the pool
// still has its floor, enough for ordinary requests.
//
// The figures come from two numbers, the memory budget and the descriptor
// limit (BudgetLimits::derive, documented in talvexsim(1)).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>

namespace talvex::sim {

using ClientId = uint64_t;

enum class Resource : uint8_t {
    Descriptors,   // sockets, shared-memory regions, descriptors on their way to a client
    Buffers,       // bytes of buffered input and output
    HubMemory,     // bytes of report hub buffers (whole pages)
    UserClients,   // open user clients
    Interests,     // interest registrations
};
inline constexpr size_t kResourceCount = 5;

// The name a refusal's trace line gives the resource.
std::string_view resource_name(Resource r);

struct ResourceLimit {
    size_t floor = 0;
    size_t per_client = 0;
    size_t pool = 0;
    size_t total = 0;   // floors set aside plus the pool
};

struct BudgetLimits {
    size_t memory = 0;        // the memory budget the figures come from
    size_t descriptors = 0;   // the descriptor limit they come from
    size_t max_clients = 0;
    std::array<ResourceLimit, kResourceCount> resources{};
    // Registry properties that clients set, measured in serialised bytes.
    // They outlive the client, so they have no floor.
    size_t property_value = 0, property_client = 0, property_total = 0;

    const ResourceLimit &operator[](Resource r) const { return resources[static_cast<size_t>(r)]; }

    static BudgetLimits derive(size_t memory, size_t descriptors);
};

// Memory costs charged per object, and the other fixed figures of derive().
inline constexpr size_t kDefaultMemoryBudget = size_t{1} << 30;
inline constexpr size_t kMinMemoryBudget = size_t{16} << 20;
inline constexpr size_t kMinDescriptors = 64;
inline constexpr size_t kUserClientCost = 1024;
inline constexpr size_t kInterestCost = 512;

// Scenarios (scenario.h): what a scenario file may hold, and the replies it
// may hold back at once (beyond them a reply goes out on time).
inline constexpr size_t kMaxScenarioFileBytes = size_t{256} << 10;
inline constexpr size_t kMaxScenarioSteps = 1000;
inline constexpr size_t kMaxScenarioActions = 64;        // per step
inline constexpr uint64_t kMaxScenarioRepeat = 1'000'000;
inline constexpr uint64_t kMaxScenarioDelay = uint64_t{7} * 24 * 3600 * 1'000'000'000;   // a week, in ns
inline constexpr size_t kMaxHeldReplies = 256;
inline constexpr size_t kMaxHeldReplyBytes = size_t{16} << 20;

// The process's own limits. Raises the descriptor soft limit to the hard
// limit where allowed; the memory budget is half of RLIMIT_AS or RLIMIT_DATA
// (the smaller) when either is set, else kDefaultMemoryBudget.
struct ProcessLimits {
    size_t memory = kDefaultMemoryBudget;
    size_t descriptors = kMinDescriptors;
};
ProcessLimits process_limits();

// Why a request was refused: which limit it would have gone over.
struct Verdict {
    bool ok = true;
    bool per_client = false;   // the client's cap (else the pool, shared by all)
    size_t limit = 0;          // that cap, or the resource's total
    explicit operator bool() const { return ok; }
};

// A verdict and the resource it is about.
struct Shortfall {
    Resource resource = Resource::Buffers;
    Verdict verdict;
};

class Budget {
    struct Account {
        ClientId id = 0;
        std::array<size_t, kResourceCount> used{};
        size_t charges = 0;   // Charge objects that refer to it
        bool gone = false;    // the client left; erased once no charge refers to it
    };

public:
    explicit Budget(const BudgetLimits &limits);
    Budget(const Budget &) = delete;
    Budget &operator=(const Budget &) = delete;

    const BudgetLimits &limits() const { return limits_; }

    // What one holder (a socket's buffers, a region, a user client) holds of
    // one resource for one client; given back when destroyed. Its account
    // stays as long as it does.
    class Charge {
    public:
        Charge() = default;
        Charge(Charge &&other) noexcept { *this = std::move(other); }
        Charge &operator=(Charge &&other) noexcept;
        ~Charge() { drop(); }

        size_t amount() const { return amount_; }
        // Changes the amount; over budget, nothing changes.
        Verdict resize(size_t amount) {
            Verdict v = check(amount);
            if (v) force(amount);
            return v;
        }
        // Whether resize(amount) would succeed, without changing anything.
        // (Giving back always succeeds.)
        Verdict check(size_t amount) const {
            if (!budget_ || amount <= amount_) return {};
            return budget_->check(*account_, resource_, amount_, amount);
        }
        // Changes the amount whatever the budget says (for what must go out
        // anyway and is small).
        void force(size_t amount) {
            if (!budget_ || amount == amount_) return;
            budget_->move(*account_, resource_, amount_, amount);
            amount_ = amount;
        }
        void release() { force(0); }

    private:
        friend class Budget;
        void drop();
        Budget *budget_ = nullptr;
        Account *account_ = nullptr;
        Resource resource_ = Resource::Descriptors;
        size_t amount_ = 0;
    };

    // An empty charge of the client's; with `amount`, refused (empty
    // charge, verdict set) when over budget.
    Charge open(ClientId client, Resource r);
    Charge take(ClientId client, Resource r, size_t amount, Verdict &verdict);

    // What a client holds, and what all clients hold beyond their floors.
    size_t used(ClientId client, Resource r) const;
    size_t pool_used(Resource r) const { return pool_used_[static_cast<size_t>(r)]; }
    size_t pool_left(Resource r) const;
    // The client left: its account goes once its last charge does.
    void forget(ClientId client);
    size_t accounts() const { return accounts_.size(); }

private:
    static size_t beyond(size_t used, size_t floor) { return used > floor ? used - floor : 0; }
    Verdict check(const Account &a, Resource r, size_t from, size_t to) const;
    void move(Account &a, Resource r, size_t from, size_t to);

    BudgetLimits limits_;
    std::array<size_t, kResourceCount> pool_used_{};
    std::unordered_map<ClientId, Account> accounts_;
};

}  // namespace talvex::sim
