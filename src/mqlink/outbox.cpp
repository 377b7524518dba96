#include "mqlink/outbox.h"

#include <algorithm>
#include <climits>

namespace mqlink {

namespace {

constexpr std::chrono::seconds soon(5);
constexpr int dropped = INT_MAX;

}  // namespace

Outbox::Publication& Outbox::add(const char* topic, std::string payload, int qos, bool retain)
{
    if (_publications.empty()) {
        expect_acknowledgement();
    }
    const std::size_t size = payload.size();
    _publications.push_back({0, topic, std::move(payload), size, qos, retain, false});
    Publication& newest = _publications.back();
    for (Publication& older : _publications) {
        const bool is_of_interest = newest.size == 0 && older.size > 0;
        if (&older != &newest && retain && older.retain && older.topic == newest.topic &&
            !is_of_interest) {
            older.superseded = true;
            std::string().swap(older.payload);  // the library has a copy as long as it needs one
        }
    }
    return newest;
}

void Outbox::acknowledge(int mid)
{
    const auto acknowledged =
        std::find_if(_publications.begin(), _publications.end(),
                     [mid](const Publication& publication) { return publication.mid == mid; });
    if (acknowledged == _publications.end()) {
        return;
    }
    _has_acknowledgements = true;
    _suspicions.erase({acknowledged->topic, acknowledged->size});
    const bool was_awaited = acknowledged == _publications.begin();
    _publications.erase(acknowledged);
    if (was_awaited) {
        expect_acknowledgement();
    }
}

void Outbox::begin_anew()
{
    _publications.erase(
        std::remove_if(_publications.begin(), _publications.end(),
                       [](const Publication& publication) { return publication.superseded; }),
        _publications.end());
    for (Publication& publication : _publications) {
        publication.mid = 0;
    }
}

Outbox::Publication* Outbox::next_to_hand_over()
{
    const auto next =
        std::find_if(_publications.begin(), _publications.end(),
                     [](const Publication& publication) { return publication.mid == 0; });
    return next == _publications.end() ? nullptr : &*next;
}

std::size_t Outbox::count() const
{
    return static_cast<std::size_t>(
        std::count_if(_publications.begin(), _publications.end(),
                      [](const Publication& publication) { return !publication.superseded; }));
}

void Outbox::expect_acknowledgement()
{
    _waiting_since = std::chrono::steady_clock::now();
    _deaf = Duration::zero();
}

std::optional<Outbox::Suspect> Outbox::connection_ended(bool lived)
{
    if (_publications.empty() || _publications.front().mid == 0 || listened() >= soon) {
        if (lived) {
            _suspicions.clear();
        }
        return std::nullopt;
    }
    const Publication& oldest = _publications.front();
    int& connections = _suspicions[{oldest.topic, oldest.size}];
    ++connections;
    return Suspect{oldest.topic, oldest.size, oldest.qos, oldest.retain, connections};
}

void Outbox::drop(const Suspect& suspect)
{
    _suspicions[{suspect.topic, suspect.size}] = dropped;
    _publications.erase(std::remove_if(_publications.begin(), _publications.end(),
                                       [&](const Publication& publication) {
                                           return publication.topic == suspect.topic &&
                                                  publication.size == suspect.size;
                                       }),
                        _publications.end());
}

bool Outbox::was_dropped(const char* topic, std::size_t size) const
{
    const auto suspicion = _suspicions.find({topic, size});
    return suspicion != _suspicions.end() && suspicion->second == dropped;
}

}  // namespace mqlink
