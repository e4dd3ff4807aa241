// The DNS client: lookups shared and cached on the caller's side, network
// exchanges (tries, time-outs, server order, TCP after truncation) on one
// worker thread that waits in net::poll.
#include "sip/dns/dns_client.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <utility>

#include "sip/dns/dns_cache.h"
#include "sip/dns/dns_servers.h"
#include "sip/core/log.h"
#include "sip/net/socket.h"
#include "sip/net/waker.h"
#include "sip/core/system.h"

namespace kelsip::dns {

namespace {

constexpr char kTag[] = "dns";
// Without EDNS servers keep UDP answers to 512 bytes; a larger datagram is
// still read whole rather than cut.
constexpr size_t kReceiveBuffer = 65536;
constexpr size_t kMaxDatagramsPerWake = 16;

using Key = std::pair<std::string, uint16_t>;

Key keyOf(std::string_view name, RecordType type) { return {canonicalName(name), static_cast<uint16_t>(type)}; }

std::string describe(const Key& key) {
    return key.first + " " + recordTypeName(static_cast<RecordType>(key.second));
}

// Query ids are what an off-path forger has to guess, so they come from
// the system's secure source when it has one.
uint16_t newQueryId() {
    uint16_t id = 0;
    if (platform::secureRandom(&id, sizeof id)) return id;
    static std::mutex mutex;
    static std::mt19937 fallback{std::random_device{}()};
    std::lock_guard lock(mutex);
    return static_cast<uint16_t>(fallback());
}

}  // namespace

// What the caller's side and the worker share. Posted completions hold it,
// so they stay safe after the client is gone: `closed` turns them into no-ops.
struct DnsClient::Shared {
    explicit Shared(EventLoop& l, const CacheLimits& cacheLimits)
        : loop(l), limits(cacheLimits), cache(cacheLimits.capacity) {}

    struct Waiter {
        Key key;
        Callback done;
    };
    struct Request {
        Key key;
        std::string name;
        RecordType type = RecordType::A;
    };

    EventLoop& loop;
    const CacheLimits limits;
    std::mutex mutex;
    DnsCache cache;
    std::map<QueryId, Waiter> waiters;
    // Lookups on the network, with the queries waiting for each.
    std::map<Key, std::vector<QueryId>> inFlight;
    std::deque<Request> requests;  // for the worker to start
    QueryId nextId = 1;
    bool closed = false;

    std::atomic<uint64_t> udpSent{0};
    std::atomic<uint64_t> tcpSent{0};
    std::atomic<uint64_t> cacheHits{0};
    std::atomic<uint64_t> networkAnswers{0};

    // On the loop thread: one query's answer (cache hits, refused names).
    void deliver(QueryId id, const DnsAnswer& answer) {
        Callback done;
        {
            std::lock_guard lock(mutex);
            const auto it = waiters.find(id);
            if (closed || it == waiters.end()) return;
            done = std::move(it->second.done);
            waiters.erase(it);
        }
        done(answer);
    }

    // On the loop thread: a network lookup ended; cache it and answer all
    // its queries. Callbacks run outside the lock so they may query again.
    void finish(const Key& key, const DnsAnswer& answer) {
        std::vector<Callback> callbacks;
        {
            std::lock_guard lock(mutex);
            if (closed) return;
            cache.put(key.first, static_cast<RecordType>(key.second), answer, loop.nowNs());
            const auto it = inFlight.find(key);
            if (it == inFlight.end()) return;
            for (const QueryId id : it->second) {
                const auto w = waiters.find(id);
                if (w == waiters.end()) continue;
                callbacks.push_back(std::move(w->second.done));
                waiters.erase(w);
            }
            inFlight.erase(it);
        }
        for (Callback& done : callbacks) done(answer);
    }
};

// The network side: every lookup in flight is an exchange with one socket,
// walked through the servers by the worker thread alone.
class DnsClient::Worker {
public:
    Worker(std::shared_ptr<Shared> shared, std::vector<net::SocketAddress> servers, const DnsClientOptions& options)
        : shared_(std::move(shared)),
          servers_(std::move(servers)),
          tryTimeoutNs_(std::max<int64_t>(options.tryTimeout.count(), 1) * 1'000'000),
          triesPerServer_(std::max(options.triesPerServer, 1)),
          clock_(shared_->loop.clock()) {
        thread_ = std::thread([this] { run(); });
    }

    ~Worker() {
        stop_.store(true);
        waker_.wake();
        thread_.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void wake() { waker_.wake(); }

private:
    enum class Mode { Udp, TcpConnecting, TcpSending, TcpReceiving };

    struct Exchange {
        Key key;
        std::string name;
        RecordType type = RecordType::A;
        uint16_t id = 0;
        std::vector<uint8_t> query;
        size_t server = 0;
        int triesSent = 0;  // to the present server
        Mode mode = Mode::Udp;
        net::Socket socket;
        std::vector<uint8_t> tcpOut;
        size_t tcpOutSent = 0;
        std::vector<uint8_t> tcpIn;
        int64_t deadlineNs = 0;
        std::string lastError = "timed out";
        bool done = false;
    };

    void run() {
        std::vector<uint8_t> buffer(kReceiveBuffer);
        std::vector<net::PollEntry> entries;
        while (!stop_.load()) {
            takeRequests();
            const int64_t now = clock_.nowNs();
            for (auto& ex : active_) {
                if (!ex->done && ex->deadlineNs <= now) onTimeout(*ex);
            }
            prune();

            entries.clear();
            net::PollEntry wakeEntry;
            wakeEntry.socket = waker_.native();
            wakeEntry.wantRead = waker_.valid();
            entries.push_back(wakeEntry);
            for (const auto& ex : active_) {
                net::PollEntry e;
                e.socket = ex->socket.native();
                e.wantRead = ex->mode == Mode::Udp || ex->mode == Mode::TcpReceiving;
                e.wantWrite = ex->mode == Mode::TcpConnecting || ex->mode == Mode::TcpSending;
                entries.push_back(e);
            }
            if (net::poll(entries, pollTimeoutMs()) < 0) continue;
            if (entries[0].readable) waker_.drain();
            for (size_t i = 1; i < entries.size() && i <= active_.size(); ++i) {
                Exchange& ex = *active_[i - 1];
                if (ex.done) continue;
                if (entries[i].readable || entries[i].writable || entries[i].error) onReady(ex, entries[i], buffer);
            }
            prune();
        }
    }

    int pollTimeoutMs() const {
        // Without a waker new work is only seen by looking again.
        int timeout = waker_.valid() ? -1 : 20;
        if (active_.empty()) return timeout;
        int64_t earliest = INT64_MAX;
        for (const auto& ex : active_) earliest = std::min(earliest, ex->deadlineNs);
        const int64_t waitNs = std::max<int64_t>(earliest - clock_.nowNs(), 0);
        auto ms = static_cast<int>(std::min<int64_t>((waitNs + 999'999) / 1'000'000, 60'000));
        // A manual clock moves without telling anyone: look at it often.
        if (!clock_.isReal()) ms = std::min(ms, 1);
        return timeout < 0 ? ms : std::min(ms, timeout);
    }

    void takeRequests() {
        std::deque<Shared::Request> requests;
        {
            std::lock_guard lock(shared_->mutex);
            requests.swap(shared_->requests);
        }
        for (Shared::Request& request : requests) {
            auto ex = std::make_unique<Exchange>();
            ex->key = std::move(request.key);
            ex->name = std::move(request.name);
            ex->type = request.type;
            ex->id = newQueryId();
            auto query = encodeQuery(ex->id, ex->name, ex->type);
            if (!query) continue;  // checked before it was queued
            ex->query = std::move(*query);
            active_.push_back(std::move(ex));
            sendTry(*active_.back());
        }
    }

    void prune() {
        active_.erase(std::remove_if(active_.begin(), active_.end(), [](const auto& ex) { return ex->done; }),
                      active_.end());
    }

    const net::SocketAddress& server(const Exchange& ex) const { return servers_[ex.server]; }

    void sendTry(Exchange& ex) {
        const net::SocketAddress& to = server(ex);
        if (ex.mode != Mode::Udp || !ex.socket.valid()) {
            ex.mode = Mode::Udp;
            ex.socket = net::Socket::open(to.family(), net::SocketType::Udp);
            if (!ex.socket.valid() || !ex.socket.setNonBlocking(true) ||
                !ex.socket.bind(net::SocketAddress::any(to.family()))) {
                ex.lastError = "send failed";
                nextServer(ex);
                return;
            }
        }
        const net::IoResult sent = ex.socket.sendTo(ex.query.data(), ex.query.size(), to);
        ++ex.triesSent;
        ex.deadlineNs = clock_.nowNs() + tryTimeoutNs_;
        if (!sent.ok()) {
            ex.lastError = "send failed";
            nextServer(ex);
            return;
        }
        shared_->udpSent.fetch_add(1);
        if (log::enabled(LogLevel::Debug)) {
            log::debug(kTag, "query " + describe(ex.key) + " to " + to.toString() + " (try " +
                                 std::to_string(ex.triesSent) + ")");
        }
    }

    void nextServer(Exchange& ex) {
        ex.socket.close();
        ex.mode = Mode::Udp;
        ex.triesSent = 0;
        ++ex.server;
        if (ex.server >= servers_.size()) {
            DnsAnswer answer;
            answer.error = ex.lastError;
            complete(ex, std::move(answer));
            return;
        }
        sendTry(ex);
    }

    void onTimeout(Exchange& ex) {
        ex.lastError = "timed out";
        if (log::enabled(LogLevel::Debug)) {
            log::debug(kTag, describe(ex.key) + ": no answer from " + server(ex).toString());
        }
        if (ex.mode == Mode::Udp && ex.triesSent < triesPerServer_) {
            sendTry(ex);
        } else {
            nextServer(ex);
        }
    }

    void startTcp(Exchange& ex) {
        const net::SocketAddress& to = server(ex);
        if (log::enabled(LogLevel::Debug)) {
            log::debug(kTag, describe(ex.key) + ": truncated answer, asking " + to.toString() + " over TCP");
        }
        ex.socket = net::Socket::open(to.family(), net::SocketType::Tcp);
        ex.deadlineNs = clock_.nowNs() + tryTimeoutNs_;
        ex.lastError = "connection failed";
        if (!ex.socket.valid() || !ex.socket.setNonBlocking(true)) {
            nextServer(ex);
            return;
        }
        const net::ConnectStatus status = ex.socket.connect(to);
        if (status == net::ConnectStatus::Failed) {
            nextServer(ex);
            return;
        }
        shared_->tcpSent.fetch_add(1);
        ex.tcpOut.clear();
        ex.tcpOut.push_back(static_cast<uint8_t>(ex.query.size() >> 8));
        ex.tcpOut.push_back(static_cast<uint8_t>(ex.query.size() & 0xFF));
        ex.tcpOut.insert(ex.tcpOut.end(), ex.query.begin(), ex.query.end());
        ex.tcpOutSent = 0;
        ex.tcpIn.clear();
        ex.mode = status == net::ConnectStatus::Connected ? Mode::TcpSending : Mode::TcpConnecting;
    }

    void onReady(Exchange& ex, const net::PollEntry& entry, std::vector<uint8_t>& buffer) {
        switch (ex.mode) {
            case Mode::Udp: readDatagrams(ex, buffer); return;
            case Mode::TcpConnecting:
                if (ex.socket.connectResult() != 0) {
                    nextServer(ex);
                    return;
                }
                ex.mode = Mode::TcpSending;
                [[fallthrough]];
            case Mode::TcpSending: {
                const net::IoResult r =
                    ex.socket.send(ex.tcpOut.data() + ex.tcpOutSent, ex.tcpOut.size() - ex.tcpOutSent);
                if (r.status == net::IoResult::Status::WouldBlock) return;
                if (!r.ok()) {
                    nextServer(ex);
                    return;
                }
                ex.tcpOutSent += r.bytes;
                if (ex.tcpOutSent == ex.tcpOut.size()) ex.mode = Mode::TcpReceiving;
                return;
            }
            case Mode::TcpReceiving: readStream(ex, entry, buffer); return;
        }
    }

    void readDatagrams(Exchange& ex, std::vector<uint8_t>& buffer) {
        for (size_t i = 0; i < kMaxDatagramsPerWake && !ex.done && ex.mode == Mode::Udp; ++i) {
            net::SocketAddress from;
            const net::IoResult r = ex.socket.receiveFrom(buffer.data(), buffer.size(), from);
            if (!r.ok()) return;
            // Only the server asked may answer (RFC 5452).
            if (from != server(ex)) continue;
            onResponse(ex, std::span<const uint8_t>(buffer.data(), r.bytes), false);
        }
    }

    void readStream(Exchange& ex, const net::PollEntry& entry, std::vector<uint8_t>& buffer) {
        const net::IoResult r = ex.socket.receive(buffer.data(), buffer.size());
        if (r.status == net::IoResult::Status::WouldBlock && !entry.error) return;
        if (!r.ok() || r.bytes == 0) {
            nextServer(ex);
            return;
        }
        ex.tcpIn.insert(ex.tcpIn.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(r.bytes));
        if (ex.tcpIn.size() < 2) return;
        const size_t length = (size_t{ex.tcpIn[0]} << 8) | ex.tcpIn[1];
        if (ex.tcpIn.size() < 2 + length) return;
        onResponse(ex, std::span<const uint8_t>(ex.tcpIn.data() + 2, length), true);
        // A stream answer that was not taken cannot be waited out.
        if (!ex.done && ex.mode == Mode::TcpReceiving) {
            ex.lastError = "bad response";
            nextServer(ex);
        }
    }

    void onResponse(Exchange& ex, std::span<const uint8_t> bytes, bool overTcp) {
        const auto header = decodeHeader(bytes);
        // Not an answer to this query: a late or forged datagram; keep waiting.
        if (!header || !header->isResponse || header->id != ex.id) return;
        if (header->truncated && !overTcp) {
            startTcp(ex);
            return;
        }
        std::string error;
        const auto message = decodeMessage(bytes, &error);
        if (!message) {
            log::debug(kTag, describe(ex.key) + ": unreadable answer from " + server(ex).toString() + ": " + error);
            ex.lastError = "bad response";
            nextServer(ex);
            return;
        }
        if (message->questions.size() != 1 || !sameName(message->questions[0].name, ex.name) ||
            message->questions[0].type != ex.type || message->questions[0].recordClass != kClassIn) {
            if (overTcp) {
                ex.lastError = "bad response";
                nextServer(ex);
            }
            return;
        }
        DnsAnswer answer = answerFromResponse(*message, ex.name, ex.type, shared_->limits);
        if (answer.status == DnsStatus::Failed) {
            log::debug(kTag, describe(ex.key) + ": " + answer.error + " from " + server(ex).toString());
            ex.lastError = answer.error;
            nextServer(ex);
            return;
        }
        answer.server = server(ex);
        shared_->networkAnswers.fetch_add(1);
        complete(ex, std::move(answer));
    }

    void complete(Exchange& ex, DnsAnswer answer) {
        ex.done = true;
        ex.socket.close();
        if (log::enabled(LogLevel::Debug)) {
            std::string text = describe(ex.key) + ": " + std::string(dnsStatusName(answer.status));
            if (answer.status == DnsStatus::Failed) {
                text += " (" + answer.error + ")";
            } else {
                text += ", " + std::to_string(answer.records.size()) + " records from " + answer.server.toString();
            }
            log::debug(kTag, text);
        }
        shared_->loop.post([shared = shared_, key = ex.key, answer = std::move(answer)] { shared->finish(key, answer); });
    }

    std::shared_ptr<Shared> shared_;
    const std::vector<net::SocketAddress> servers_;
    const int64_t tryTimeoutNs_;
    const int triesPerServer_;
    const Clock& clock_;
    std::vector<std::unique_ptr<Exchange>> active_;
    net::Waker waker_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

DnsClient::DnsClient(EventLoop& loop, DnsClientOptions options)
    : loop_(loop), servers_(std::move(options.servers)) {
    if (servers_.empty()) {
        std::string error;
        servers_ = systemDnsServers(&error);
        if (servers_.empty()) log::warn(kTag, "no dns servers: " + error);
    }
    shared_ = std::make_shared<Shared>(loop, options.cache);
    worker_ = std::make_unique<Worker>(shared_, servers_, options);
}

DnsClient::~DnsClient() {
    {
        std::lock_guard lock(shared_->mutex);
        shared_->closed = true;
        shared_->waiters.clear();
        shared_->inFlight.clear();
        shared_->requests.clear();
    }
    worker_.reset();
}

DnsClient::QueryId DnsClient::query(std::string_view name, RecordType type, Callback done) {
    const Key key = keyOf(name, type);
    std::string error;
    const bool validName = encodeQuery(0, name, type, true, &error).has_value();
    bool startLookup = false;
    QueryId id = 0;
    {
        std::lock_guard lock(shared_->mutex);
        id = shared_->nextId++;
        shared_->waiters.emplace(id, Shared::Waiter{key, std::move(done)});
        std::optional<DnsAnswer> immediate;
        if (!validName) {
            immediate.emplace();
            immediate->error = "bad name";
        } else if (servers_.empty()) {
            immediate.emplace();
            immediate->error = "no dns servers";
        } else if (auto cached = shared_->cache.get(key.first, type, loop_.nowNs())) {
            shared_->cacheHits.fetch_add(1);
            immediate = std::move(cached);
        }
        if (immediate) {
            loop_.post([shared = shared_, id, answer = std::move(*immediate)] { shared->deliver(id, answer); });
            return id;
        }
        auto [it, fresh] = shared_->inFlight.try_emplace(key);
        it->second.push_back(id);
        if (fresh) {
            shared_->requests.push_back(Shared::Request{key, std::string(name), type});
            startLookup = true;
        }
    }
    if (startLookup) worker_->wake();
    return id;
}

void DnsClient::cancel(QueryId id) {
    std::lock_guard lock(shared_->mutex);
    const auto it = shared_->waiters.find(id);
    if (it == shared_->waiters.end()) return;
    const auto flight = shared_->inFlight.find(it->second.key);
    if (flight != shared_->inFlight.end()) {
        auto& ids = flight->second;
        ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
    }
    shared_->waiters.erase(it);
}

DnsClientStats DnsClient::stats() const {
    DnsClientStats s;
    s.udpQueriesSent = shared_->udpSent.load();
    s.tcpQueriesSent = shared_->tcpSent.load();
    s.cacheHits = shared_->cacheHits.load();
    s.answersFromNetwork = shared_->networkAnswers.load();
    return s;
}

void DnsClient::clearCache() {
    std::lock_guard lock(shared_->mutex);
    shared_->cache.clear();
}

}  // namespace kelsip::dns
