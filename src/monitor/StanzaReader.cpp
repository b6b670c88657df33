#include "monitor/StanzaReader.h"

#include <cstdint>

#include "filter/FilterParser.h"
#include "platform/LoaderInfo.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char* const kFn = "WinEventMon::configure";
constexpr int32_t kMaxThreads = 15;
constexpr int32_t kMaxChannelWaitSeconds = 180;

const char* yesNo(bool b) { return b ? "true" : "false"; }

std::string filterKey(const char* base, int n) { return n == 0 ? std::string(base) : base + std::to_string(n); }

// The collector format: only a forwarded-events channel may take the rendered form.
std::string wecEventFormat(const std::string& value, const std::string& channel) {
    if (channel.find("ForwardedEvents") == std::string::npos) {
        if (!value.empty() && value != "raw_event")
            LOG_WARN("%s: unexpected value %s for 'wec_event_format' for a non-ForwardedEvents channel, Falling back "
                     "to default value \"raw_event\"",
                     kFn, value.c_str());
        return "raw_event";
    }
    if (value == "raw_event" || value == "rendered_event") return value;
    if (!value.empty())
        LOG_WARN("%s: unexpected value %s for 'wec_event_format', falling back to default value \"rendered_event\"",
                 kFn, value.c_str());
    return "rendered_event";
}

std::wstring domainControllerName(const std::string& value) {
    if (value.empty() || value[0] != '$') return widen(value);
    std::wstring resolved;
    if (getEnv(widen(value.substr(1)).c_str(), resolved)) {
        LOG_DEBUG("Found an environment variable for evt_dc_name, it is %s and translates to '%s'", value.c_str(),
                  narrow(resolved).c_str());
        return resolved;
    }
    LOG_WARN("Found an environment variable for evt_dc_name, it is %s but is not present in environment",
             value.c_str());
    return std::wstring();
}

uint64_t secondsToMs(uint32_t seconds) { return static_cast<uint64_t>(seconds) * 1000; }

}  // namespace

void StanzaReader::read(const Stanza& stanza, const std::string& channel, const std::string& written, bool vista,
                        ChannelSettings& s) {
    StanzaValues v(stanza.params);
    readPolling(v, s);
    const std::string& format = v.text("wec_event_format");
    LOG_DEBUG("%s: evtFmt = %s channelName = %s", kFn, format.c_str(), channel.c_str());
    s.wecEventFormat = wecEventFormat(format, channel);
    readResolution(v, s);
    readRendering(v, written, vista, s);
    readDcKind(v, s);
    readCaches(v, s);
    logSummary(channel, s);
    readFilters(v, s);
    readExcludedFields(v, s);
}

void StanzaReader::readPolling(const StanzaValues& v, ChannelSettings& s) const {
    s.threadWaitMs = v.getInt("thread_wait_time_msec", 5000);
    s.currentOnly = v.getBool("current_only", false);
    s.batchSize = v.getInt("batch_size", 10);

    const int32_t interval = v.getInt("checkpointInterval", 0);
    s.checkpointIntervalMs = interval < 0 ? UINT64_MAX : static_cast<uint64_t>(interval) * 1000;
    s.checkpointSync = v.getBool("checkpointSync", false);
    s.suppressCheckpoint = v.getBool("suppress_checkpoint", false);
    s.checkpointDir = checkpointDir_;

    const std::string& startFrom = v.text("start_from");
    s.startFrom = startFrom.empty() ? "oldest" : startFrom;

    const int32_t wait = v.getInt("channel_wait_time", 0);
    s.channelWaitSeconds =
        static_cast<uint64_t>(wait < 0 ? 0 : (wait > kMaxChannelWaitSeconds ? kMaxChannelWaitSeconds : wait));

    const int32_t threads = v.getInt("use_threads", 0);
    s.threadCount = threads > kMaxThreads ? kMaxThreads : threads;
}

void StanzaReader::readResolution(const StanzaValues& v, ChannelSettings& s) const {
    s.resolveAdObj = v.getBool("evt_resolve_ad_obj", false);
    const std::string& skipGuid = v.text("evt_skip_GUID_resolution");
    if (!skipGuid.empty()) {
        if (s.resolveAdObj) {
            s.guidSkipCodes = parseEventCodeList(skipGuid, "skipGUIDResolution");
            if (!s.guidSkipCodes.empty()) LOG_INFO("Skipping GUID resolutions for event codes: %s", skipGuid.c_str());
        } else {
            LOG_INFO("Not skipping GUID resolutions for: %s, because evt_resolve_ad_obj is false", skipGuid.c_str());
        }
    }
    s.dcName = domainControllerName(v.text("evt_dc_name"));
    const std::string& dns = v.text("evt_dns_name");
    if (!dns.empty()) s.dnsName = widen(dns);
}

void StanzaReader::readRendering(const StanzaValues& v, const std::string& written, bool vista,
                                 ChannelSettings& s) const {
    s.index = v.text("index");
    s.useOldApi = v.getBool("use_old_eventlog_api", false);
    s.suppressText = v.getBool("suppress_text", false);
    s.suppressSourceName = v.getBool("suppress_sourcename", false);
    s.suppressType = v.getBool("suppress_type", false);
    s.suppressTask = v.getBool("suppress_task", false);
    s.suppressOpcode = v.getBool("suppress_opcode", false);
    s.suppressKeywords = v.getBool("suppress_keywords", false);
    s.renderXml = v.getBool("renderXml", false);
    if (s.renderXml && !vista) {
        LOG_WARN("%s: Operating system is pre Vista. Render XML disabled.", kFn);
        s.renderXml = false;
    }
    const std::string& source = v.text("source");
    s.source = source.empty() ? "WinEventLog:" + written : source;
    const std::string& sourceType = v.text("sourcetype");
    s.sourceType = !sourceType.empty() ? sourceType : (s.renderXml ? "XmlWinEventLog:" : "WinEventLog:") + written;
}

void StanzaReader::readDcKind(const StanzaValues& v, ChannelSettings& s) const {
    s.dcKind = DcKind::Automatic;
    const std::string& adDs = v.text("evt_resolve_ad_ds");
    if (adDs.empty()) return;
    if (!s.dcName.empty()) {
        LOG_INFO("%s: evt_dc_name is set, ignoring evt_resolve_ad_ds setting", kFn);
        return;
    }
    const std::string kind = asciiLower(adDs);
    if (kind == "pdc")
        s.dcKind = DcKind::Primary;
    else if (kind != "auto")
        LOG_INFO("%s: evt_resolve_ad_ds is set, but it is not AUTO or PDC, using AUTO", kFn);
}

void StanzaReader::readCaches(const StanzaValues& v, ChannelSettings& s) {
    s.adCache.disabled = v.getBool("evt_ad_cache_disabled", false);
    s.adCache.expiryMs = secondsToMs(v.getUInt("evt_ad_cache_exp", 3600));
    s.adCache.negativeExpiryMs = secondsToMs(v.getUInt("evt_ad_cache_exp_neg", 10));
    s.adCache.maxEntries = v.getUInt("evt_ad_cache_max_entries", 1000);
    if (sidCacheRead_) return;
    sidCacheRead_ = true;
    sidCacheSettings_.disabled = v.getBool("evt_sid_cache_disabled", false);
    sidCacheSettings_.expiryMs = secondsToMs(v.getUInt("evt_sid_cache_exp", 3600));
    sidCacheSettings_.negativeExpiryMs = secondsToMs(v.getUInt("evt_sid_cache_exp_neg", 10));
    sidCacheSettings_.maxEntries = v.getUInt("evt_sid_cache_max_entries", 1000);
}

void StanzaReader::logSummary(const std::string& channel, const ChannelSettings& s) const {
    LOG_INFO("%s: configure stanza %s:  channel = %s, startFrom = %s, currentOnly = %s, wec_event_format = %s, dc name "
             "= %s, dns name = %s, bind to DC = %d index = %s, suppress text = %s, render XML = %s, suppress_sourcename "
             "= %s, use_old_eventlog_api = %s, suppress_type = %s, suppress_task = %s, suppress_opcode = %s, "
             "suppress_keywords = %s, source = %s, sourcetype = %s, DC type = %s, evt_ad_obj_cache_disabled %d, "
             "evt_ad_cache_exp %llu, evt_ad_cache_exp_neg %llu, evt_ad_cache_max_entries %d evt_sid_cache_disabled %d, "
             "evt_sid_cache_exp %llu, evt_sid_cache_exp_neg %llu, evt_sid_cache_max_entries %d",
             kFn, s.stanzaName.c_str(), channel.c_str(), s.startFrom.c_str(), yesNo(s.currentOnly),
             s.wecEventFormat.c_str(), narrow(s.dcName).c_str(), narrow(s.dnsName).c_str(), s.resolveAdObj ? 1 : 0,
             s.index.c_str(), yesNo(s.suppressText), yesNo(s.renderXml), yesNo(s.suppressSourceName),
             yesNo(s.useOldApi), yesNo(s.suppressType), yesNo(s.suppressTask), yesNo(s.suppressOpcode),
             yesNo(s.suppressKeywords), s.source.c_str(), s.sourceType.c_str(),
             s.dcKind == DcKind::Primary ? "Primary DC" : "Auto DC", s.adCache.disabled ? 1 : 0,
             static_cast<unsigned long long>(s.adCache.expiryMs),
             static_cast<unsigned long long>(s.adCache.negativeExpiryMs), static_cast<int>(s.adCache.maxEntries),
             sidCacheSettings_.disabled ? 1 : 0, static_cast<unsigned long long>(sidCacheSettings_.expiryMs),
             static_cast<unsigned long long>(sidCacheSettings_.negativeExpiryMs),
             static_cast<int>(sidCacheSettings_.maxEntries));
}

void StanzaReader::readFilters(const StanzaValues& v, ChannelSettings& s) const {
    for (int n = 0; n <= 9; ++n) {
        for (bool white : {true, false}) {
            const std::string key = filterKey(white ? "whitelist" : "blacklist", n);
            const std::string& value = v.text(key);
            if (value.empty()) continue;
            FilterRuleMap rule;
            if (parseFilterValue(key, value, s.renderXml, rule))
                addFilterRule(key, rule, white, white ? s.filters.whitelist : s.filters.blacklist,
                              s.filters.onMessage);
        }
    }
}

void StanzaReader::readExcludedFields(const StanzaValues& v, ChannelSettings& s) const {
    const std::string& excluded = v.text("evt_exclude_fields");
    if (excluded.empty()) return;
    for (const std::string& piece : split(excluded, ',')) {
        std::string field = trim(piece);
        if (field.empty()) continue;
        s.excludedFields.insert(widen(field));
        LOG_DEBUG("Excluding field: '%s' from event", field.c_str());
        checkExcludedField(field, s.filters.whitelist, s.filters.blacklist);
    }
}

}  // namespace skorva
