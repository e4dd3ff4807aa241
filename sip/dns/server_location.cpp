// Server location: numeric hosts and explicit ports first, then NAPTR, SRV
// and A/AAAA lookups, each stage's queries in parallel on the DNS client.
#include "sip/dns/server_location.h"

#include <algorithm>
#include <optional>
#include <random>
#include <utility>

#include "sip/core/log.h"
#include "sip/core/system.h"

namespace kelsip::dns {

namespace {

constexpr char kTag[] = "dns";

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

std::optional<TransportKind> naptrTransport(std::string_view services) {
    if (equalsIgnoreCase(services, "SIP+D2U")) return TransportKind::Udp;
    if (equalsIgnoreCase(services, "SIP+D2T")) return TransportKind::Tcp;
    if (equalsIgnoreCase(services, "SIPS+D2T")) return TransportKind::Tls;
    return std::nullopt;
}

std::string srvName(TransportKind kind, std::string_view host) {
    switch (kind) {
        case TransportKind::Udp: return "_sip._udp." + std::string(host);
        case TransportKind::Tcp: return "_sip._tcp." + std::string(host);
        case TransportKind::Tls: return "_sips._tcp." + std::string(host);
    }
    return std::string(host);
}

RandomSource systemRandom() {
    uint32_t seed = 0;
    if (!platform::secureRandom(&seed, sizeof seed)) seed = std::random_device{}();
    auto engine = std::make_shared<std::mt19937>(seed);
    return [engine](uint32_t bound) { return std::uniform_int_distribution<uint32_t>(0, bound)(*engine); };
}

std::string joinTargets(const std::vector<SipTarget>& targets) {
    std::string out;
    for (const SipTarget& t : targets) {
        if (!out.empty()) out += ", ";
        out += t.toString();
    }
    return out;
}

}  // namespace

std::vector<SrvData> orderSrvRecords(std::vector<SrvData> records, const RandomSource& random) {
    std::stable_sort(records.begin(), records.end(),
                     [](const SrvData& a, const SrvData& b) { return a.priority < b.priority; });
    std::vector<SrvData> out;
    out.reserve(records.size());
    for (size_t begin = 0; begin < records.size();) {
        size_t end = begin;
        while (end < records.size() && records[end].priority == records[begin].priority) ++end;
        std::vector<SrvData> group(records.begin() + static_cast<std::ptrdiff_t>(begin),
                                   records.begin() + static_cast<std::ptrdiff_t>(end));
        std::stable_partition(group.begin(), group.end(), [](const SrvData& r) { return r.weight == 0; });
        while (!group.empty()) {
            uint32_t sum = 0;
            for (const SrvData& r : group) sum += r.weight;
            const uint32_t pick = random ? std::min(random(sum), sum) : 0;
            uint32_t running = 0;
            size_t chosen = group.size() - 1;
            for (size_t i = 0; i < group.size(); ++i) {
                running += group[i].weight;
                if (running >= pick) {
                    chosen = i;
                    break;
                }
            }
            out.push_back(std::move(group[chosen]));
            group.erase(group.begin() + static_cast<std::ptrdiff_t>(chosen));
        }
        begin = end;
    }
    return out;
}

struct ServerLocator::Job {
    enum class Stage { Start, Naptr, Srv, Addresses, Done };

    struct SrvLookup {
        TransportKind kind = TransportKind::Udp;
        std::string name;
        std::vector<SrvData> records;
        std::vector<ResourceRecord> additional;
    };
    // One SRV target (or the host itself) to reach with one transport and port.
    struct Hop {
        TransportKind kind = TransportKind::Udp;
        uint16_t port = 0;
        std::string host;
    };
    struct Addresses {
        std::vector<net::SocketAddress> v4;
        std::vector<net::SocketAddress> v6;
    };

    LocateId id = 0;
    std::string uriText;
    Callback done;
    Stage stage = Stage::Start;
    bool secure = false;
    std::string host;
    std::vector<DnsClient::QueryId> queries;  // every query asked, for cancelling
    int outstanding = 0;
    std::vector<SrvLookup> srv;
    std::optional<Hop> fallback;  // when no SRV record turns up
    std::vector<Hop> hops;
    std::map<std::string, Addresses> addresses;  // by canonical host name
    LocateResult result;
};

ServerLocator::ServerLocator(DnsClient& dns, ServerLocationOptions options)
    : dns_(dns), options_(std::move(options)), lifeline_(std::make_shared<char>()) {
    if (!options_.random) options_.random = systemRandom();
}

ServerLocator::~ServerLocator() {
    for (auto& [id, job] : jobs_) {
        for (const DnsClient::QueryId q : job->queries) dns_.cancel(q);
    }
}

ServerLocator::LocateId ServerLocator::locate(const SipUri& uri, Callback done) {
    const LocateId id = nextId_++;
    auto job = std::make_unique<Job>();
    job->id = id;
    job->uriText = uri.toString();
    job->done = std::move(done);
    Job& ref = *job;
    jobs_.emplace(id, std::move(job));
    startJob(ref, uri);
    return id;
}

void ServerLocator::cancel(LocateId id) {
    const auto it = jobs_.find(id);
    if (it == jobs_.end()) return;
    for (const DnsClient::QueryId q : it->second->queries) dns_.cancel(q);
    jobs_.erase(it);
}

bool ServerLocator::enabled(TransportKind kind) const {
    return std::find(options_.transports.begin(), options_.transports.end(), kind) != options_.transports.end();
}

void ServerLocator::startJob(Job& job, const SipUri& uri) {
    log::debug(kTag, "locating " + job.uriText);
    if (uri.scheme == "tel") return fail(job, "tel uri is not routed");
    job.secure = uri.scheme == "sips";

    std::optional<TransportKind> forced;
    if (const auto transport = uri.param("transport")) {
        if (equalsIgnoreCase(*transport, "udp")) {
            if (job.secure) return fail(job, "sips over udp");
            forced = TransportKind::Udp;
        } else if (equalsIgnoreCase(*transport, "tcp")) {
            forced = job.secure ? TransportKind::Tls : TransportKind::Tcp;
        } else if (equalsIgnoreCase(*transport, "tls")) {
            forced = TransportKind::Tls;
        } else {
            return fail(job, "unknown transport");
        }
    }
    // Without NAPTR and SRV records a sip URI is reached over UDP, a sips
    // URI over TLS (RFC 3263 4.1).
    const TransportKind plainKind = forced ? *forced : (job.secure ? TransportKind::Tls : TransportKind::Udp);

    const auto maddr = uri.param("maddr");
    job.host = maddr && !maddr->empty() ? *maddr : uri.host;
    if (job.host.empty()) return fail(job, "bad host");

    if (const auto numeric = net::SocketAddress::parse(job.host)) {
        if (!enabled(plainKind)) return fail(job, "transport not enabled");
        SipTarget target;
        target.kind = plainKind;
        target.address = *numeric;
        target.address.setPort(uri.port != 0 ? uri.port : defaultPort(plainKind));
        job.result.targets.push_back(target);
        return finish(job);
    }
    if (job.host.front() == '[') return fail(job, "bad host");

    if (uri.port != 0) {
        if (!enabled(plainKind)) return fail(job, "transport not enabled");
        log::debug(kTag, job.uriText + ": port given, A/AAAA of " + job.host);
        job.hops.push_back(Job::Hop{plainKind, uri.port, job.host});
        return queryAddresses(job);
    }
    if (forced) {
        if (!enabled(*forced)) return fail(job, "transport not enabled");
        job.srv.push_back(Job::SrvLookup{*forced, srvName(*forced, job.host), {}, {}});
        job.fallback = Job::Hop{*forced, defaultPort(*forced), job.host};
        return querySrv(job);
    }
    queryNaptr(job);
}

void ServerLocator::queryNaptr(Job& job) {
    job.stage = Job::Stage::Naptr;
    log::debug(kTag, job.uriText + ": NAPTR " + job.host);
    ask(job, job.host, RecordType::NAPTR, [this](Job& j, const DnsAnswer& answer) { onNaptr(j, answer); });
}

void ServerLocator::onNaptr(Job& job, const DnsAnswer& answer) {
    struct Usable {
        const NaptrData* naptr;
        TransportKind kind;
    };
    std::vector<Usable> usable;
    for (const ResourceRecord& rr : answer.records) {
        const NaptrData* n = rr.naptr();
        if (!n || !equalsIgnoreCase(n->flags, "s") || n->replacement.empty() || n->replacement == ".") continue;
        const auto kind = naptrTransport(n->services);
        // A sips URI may only be reached over TLS; a sip URI over any
        // transport the domain offers and this stack has.
        if (!kind || !enabled(*kind) || (job.secure && *kind != TransportKind::Tls)) continue;
        usable.push_back(Usable{n, *kind});
    }
    std::stable_sort(usable.begin(), usable.end(), [](const Usable& a, const Usable& b) {
        return a.naptr->order != b.naptr->order ? a.naptr->order < b.naptr->order
                                                : a.naptr->preference < b.naptr->preference;
    });
    for (const Usable& u : usable) {
        const bool seen = std::any_of(job.srv.begin(), job.srv.end(), [&](const Job::SrvLookup& s) {
            return s.kind == u.kind && sameName(s.name, u.naptr->replacement);
        });
        if (!seen) job.srv.push_back(Job::SrvLookup{u.kind, u.naptr->replacement, {}, {}});
    }
    log::debug(kTag, job.uriText + ": NAPTR " + job.host + " gave " + std::to_string(answer.records.size()) +
                         " records, " + std::to_string(usable.size()) + " usable");

    // Without usable NAPTR records, SRV for each transport this stack has,
    // in its order of preference (RFC 3263 4.1). Records that name only
    // transports we lack are treated like none at all: the domain may still
    // publish SRV records for ours.
    if (job.srv.empty()) {
        for (const TransportKind kind : options_.transports) {
            if (job.secure != (kind == TransportKind::Tls)) continue;
            job.srv.push_back(Job::SrvLookup{kind, srvName(kind, job.host), {}, {}});
        }
    }
    const TransportKind plainKind = job.secure ? TransportKind::Tls
                                    : enabled(TransportKind::Udp) ? TransportKind::Udp
                                                                  : TransportKind::Tcp;
    if (enabled(plainKind)) job.fallback = Job::Hop{plainKind, defaultPort(plainKind), job.host};
    if (job.srv.empty() && !job.fallback) return fail(job, "transport not enabled");
    querySrv(job);
}

void ServerLocator::querySrv(Job& job) {
    job.stage = Job::Stage::Srv;
    if (job.srv.empty()) return onSrvDone(job);
    for (size_t i = 0; i < job.srv.size(); ++i) {
        log::debug(kTag, job.uriText + ": SRV " + job.srv[i].name);
        ask(job, job.srv[i].name, RecordType::SRV, [this, i](Job& j, const DnsAnswer& answer) {
            for (const ResourceRecord& rr : answer.records) {
                if (const SrvData* s = rr.srv()) j.srv[i].records.push_back(*s);
            }
            j.srv[i].additional = answer.additional;
            log::debug(kTag, j.uriText + ": SRV " + j.srv[i].name + " gave " +
                                 std::to_string(j.srv[i].records.size()) + " records");
            if (j.outstanding == 0) onSrvDone(j);
        });
    }
}

void ServerLocator::onSrvDone(Job& job) {
    bool anyRecord = false;
    for (Job::SrvLookup& lookup : job.srv) {
        for (SrvData& record : orderSrvRecords(lookup.records, options_.random)) {
            anyRecord = true;
            // "." says the service is not offered here (RFC 2782).
            if (record.target == "." || record.target.empty()) continue;
            job.hops.push_back(Job::Hop{lookup.kind, record.port, record.target});
        }
        // Addresses the server sent along spare a query per target.
        for (const ResourceRecord& rr : lookup.additional) {
            const net::SocketAddress* address = rr.address();
            if (!address) continue;
            const bool isTarget = std::any_of(job.hops.begin(), job.hops.end(),
                                              [&](const Job::Hop& h) { return sameName(h.host, rr.name); });
            if (!isTarget) continue;
            Job::Addresses& known = job.addresses[canonicalName(rr.name)];
            auto& list = address->isV4() ? known.v4 : known.v6;
            if (std::find(list.begin(), list.end(), *address) == list.end()) list.push_back(*address);
        }
    }
    if (!anyRecord) {
        if (!job.fallback) return fail(job, "no server found");
        log::debug(kTag, job.uriText + ": no SRV records, A/AAAA of " + job.host + " on port " +
                             std::to_string(job.fallback->port));
        job.hops.push_back(*job.fallback);
    }
    queryAddresses(job);
}

void ServerLocator::queryAddresses(Job& job) {
    job.stage = Job::Stage::Addresses;
    std::vector<std::string> asked;
    for (const Job::Hop& hop : job.hops) {
        const std::string key = canonicalName(hop.host);
        if (job.addresses.count(key) != 0 || std::find(asked.begin(), asked.end(), key) != asked.end()) continue;
        // An SRV target written as an address needs no lookup.
        if (const auto numeric = net::SocketAddress::parse(hop.host)) {
            (numeric->isV4() ? job.addresses[key].v4 : job.addresses[key].v6).push_back(*numeric);
            continue;
        }
        asked.push_back(key);
    }
    if (asked.empty()) return finishAddresses(job);
    for (const std::string& host : asked) {
        for (const RecordType type : {RecordType::A, RecordType::AAAA}) {
            ask(job, host, type, [this, host, type](Job& j, const DnsAnswer& answer) {
                Job::Addresses& known = j.addresses[host];
                auto& list = type == RecordType::A ? known.v4 : known.v6;
                for (const ResourceRecord& rr : answer.records) {
                    if (const net::SocketAddress* a = rr.address()) list.push_back(*a);
                }
                log::debug(kTag, j.uriText + ": " + recordTypeName(type) + " " + host + " gave " +
                                     std::to_string(answer.records.size()) + " addresses" +
                                     (answer.status == DnsStatus::Failed ? " (" + answer.error + ")" : ""));
                if (j.outstanding == 0) finishAddresses(j);
            });
        }
    }
}

void ServerLocator::finishAddresses(Job& job) {
    for (const Job::Hop& hop : job.hops) {
        const auto it = job.addresses.find(canonicalName(hop.host));
        if (it == job.addresses.end()) continue;
        const bool v4First = options_.addressOrder == AddressOrder::V4First;
        for (const auto* list : {v4First ? &it->second.v4 : &it->second.v6, v4First ? &it->second.v6 : &it->second.v4}) {
            for (net::SocketAddress address : *list) {
                address.setPort(hop.port);
                SipTarget target;
                target.kind = hop.kind;
                target.address = address;
                auto& targets = job.result.targets;
                if (std::find(targets.begin(), targets.end(), target) == targets.end()) targets.push_back(target);
            }
        }
    }
    if (job.result.targets.empty()) return fail(job, "no server found");
    finish(job);
}

void ServerLocator::fail(Job& job, const char* error) {
    log::warn(kTag, "no server for " + job.uriText + ": " + error);
    job.result.targets.clear();
    job.result.error = error;
    deliver(job);
}

void ServerLocator::finish(Job& job) {
    log::debug(kTag, job.uriText + " -> " + joinTargets(job.result.targets));
    deliver(job);
}

void ServerLocator::deliver(Job& job) {
    job.stage = Job::Stage::Done;
    // Always through the loop, so that no result arrives inside locate().
    dns_.loop().post([this, life = std::weak_ptr<char>(lifeline_), id = job.id] {
        if (life.expired()) return;
        const auto it = jobs_.find(id);
        if (it == jobs_.end()) return;
        std::unique_ptr<Job> done = std::move(it->second);
        jobs_.erase(it);
        done->done(std::move(done->result));
    });
}

void ServerLocator::ask(Job& job, const std::string& name, RecordType type,
                        std::function<void(Job&, const DnsAnswer&)> then) {
    ++job.outstanding;
    const LocateId id = job.id;
    job.queries.push_back(dns_.query(name, type, [this, id, then = std::move(then)](const DnsAnswer& answer) {
        const auto it = jobs_.find(id);
        if (it == jobs_.end() || it->second->stage == Job::Stage::Done) return;
        Job& j = *it->second;
        --j.outstanding;
        then(j, answer);
    }));
}

}  // namespace kelsip::dns
