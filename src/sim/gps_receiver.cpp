#include "sim/gps_receiver.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <sstream>

namespace lx::sim {

namespace {

constexpr std::streamoff kMaxLogBytes = 16 << 20;
// Only the last few messages of a long catch-up can still be seen in the ring.
constexpr uint64_t kMessagesWritten = 8;
// Changes of the reference's rate remembered (older UTC times are placed at
// the oldest rate kept).
constexpr size_t kMaxSegments = 4096;

// Days since 1970-01-01 of a proleptic Gregorian date, and back (Hinnant's
// algorithms).
int64_t DaysFromCivil(int64_t y, int m, int d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

void CivilFromDays(int64_t z, int& y, int& m, int& d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    y = static_cast<int>(yoe + era * 400 + (m <= 2));
}

std::string Join(std::initializer_list<std::string> fields) {
    std::string out;
    for (const std::string& f : fields) out += (out.empty() ? "" : ",") + f;
    return out;
}

std::string SentenceType(const std::string& s) { return s.size() >= 6 && s[0] == '$' ? s.substr(3, 3) : ""; }

// Field `index` (1 = the first after the sentence name), or empty.
std::string Field(const std::string& s, int index) {
    size_t at = 0;
    for (int i = 0; i < index; ++i) {
        at = s.find(',', at);
        if (at == std::string::npos) return "";
        ++at;
    }
    const size_t end = s.find_first_of(",*", at);
    return s.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

// hhmmss of a sentence that carries the UTC of its second, or empty.
std::string TimeKey(const std::string& s) {
    const std::string type = SentenceType(s);
    if (type != "RMC" && type != "GGA" && type != "ZDA") return "";
    const std::string t = Field(s, 1).substr(0, 6);
    if (t.size() != 6 || !std::all_of(t.begin(), t.end(), [](char c) { return c >= '0' && c <= '9'; })) return "";
    return t;
}

} // namespace

// ---- NMEA text ---------------------------------------------------------------------

std::string FormatCoordinate(double degrees, bool latitude) {
    // Round once, in units of 1e-4 minutes, so that 59.99995' carries into
    // the degrees instead of printing as 60.0000.
    const long long units = std::llround(std::fabs(degrees) * 600000.0);
    const char hemisphere = latitude ? (degrees < 0 && units ? 'S' : 'N') : (degrees < 0 && units ? 'W' : 'E');
    char buf[32];
    std::snprintf(buf, sizeof buf, "%0*lld%02lld.%04lld,%c", latitude ? 2 : 3, units / 600000, units % 600000 / 10000,
                  units % 10000, hemisphere);
    return buf;
}

std::string Sentence(const std::string& body) {
    uint8_t sum = 0;
    for (char c : body) sum ^= static_cast<uint8_t>(c);
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    return "$" + body + tail;
}

std::string SyntheticMessage(const GpsScene& g, int64_t utcSeconds) {
    const int64_t days = utcSeconds >= 0 ? utcSeconds / 86400 : -((-utcSeconds + 86399) / 86400);
    const int64_t sod = utcSeconds - days * 86400;
    int y = 0, m = 0, d = 0;
    CivilFromDays(days, y, m, d);
    char time[16], date[16], alt[32];
    std::snprintf(time, sizeof time, "%02d%02d%02d.00", static_cast<int>(sod / 3600), static_cast<int>(sod / 60 % 60),
                  static_cast<int>(sod % 60));
    std::snprintf(date, sizeof date, "%02d%02d%02d", d, m, y % 100);
    std::snprintf(alt, sizeof alt, "%.1f", g.altitudeM);
    if (!g.fix) {
        return Sentence(Join({"GPRMC", time, "V", "", "", "", "", "", "", date, "", "", "N"})) +
               Sentence(Join({"GPGGA", time, "", "", "", "", "0", "00", "", "", "M", "", "M", "", ""}));
    }
    const std::string lat = FormatCoordinate(g.latitudeDeg, true);
    const std::string lon = FormatCoordinate(g.longitudeDeg, false);
    return Sentence(Join({"GPRMC", time, "A", lat, lon, "0.00", "0.00", date, "", "", "A"})) +
           Sentence(Join({"GPGGA", time, lat, lon, "1", "08", "0.9", alt, "M", "47.0", "M", "", ""}));
}

std::optional<int64_t> ParseUtc(const std::string& s) {
    static constexpr char kPattern[] = "dddd-dd-ddTdd:dd:ddZ";
    if (s.size() != sizeof kPattern - 1) return std::nullopt;
    for (size_t i = 0; i < s.size(); ++i) {
        const bool digit = s[i] >= '0' && s[i] <= '9';
        if (kPattern[i] == 'd' ? !digit : s[i] != kPattern[i]) return std::nullopt;
    }
    const auto num = [&](size_t at, size_t n) { return std::stoi(s.substr(at, n)); };
    const int y = num(0, 4), mo = num(5, 2), d = num(8, 2), h = num(11, 2), mi = num(14, 2), se = num(17, 2);
    static constexpr int kMonthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    // The receiver's date has a two-digit year that the host reads as 20yy.
    if (y < 2000 || y > 2099 || mo < 1 || mo > 12 || d < 1 || d > kMonthDays[mo - 1] || h > 23 || mi > 59 || se > 59)
        return std::nullopt;
    if (mo == 2 && d == 29 && y % 4 != 0) return std::nullopt; // 2000 is a leap year; 2100 is out of range
    return DaysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + se;
}

std::shared_ptr<const std::vector<NmeaMessage>> LoadNmeaLog(const std::string& path, std::string* error) {
    const auto fail = [&](const std::string& why) {
        if (error) *error = "\"nmea_log\" " + path + ": " + why;
        return nullptr;
    };
    std::ifstream f(path, std::ios::binary);
    if (!f) return fail("cannot be read");
    f.seekg(0, std::ios::end);
    if (f.tellg() > kMaxLogBytes) return fail("larger than 16 MiB");
    f.seekg(0);
    std::ostringstream content;
    content << f.rdbuf();

    auto out = std::make_shared<std::vector<NmeaMessage>>();
    std::vector<std::string> burst;
    std::string burstKey;
    std::optional<bool> burstFix;
    bool fix = false;
    bool overfull = false;
    const auto flush = [&] {
        if (burst.empty()) return;
        // A burst that would overrun the ring keeps its RMC and GGA.
        const auto size = [&] {
            size_t n = 0;
            for (const auto& s : burst) n += s.size();
            return n;
        };
        for (size_t i = burst.size(); i-- > 0 && size() > kMaxMessageBytes;) {
            const std::string type = SentenceType(burst[i]);
            if (type != "RMC" && type != "GGA") burst.erase(burst.begin() + static_cast<std::ptrdiff_t>(i));
        }
        overfull |= size() > kMaxMessageBytes;
        NmeaMessage m;
        for (const auto& s : burst) m.text += s;
        fix = burstFix.value_or(fix);
        m.fix = fix;
        out->push_back(std::move(m));
        burst.clear();
        burstKey.clear();
        burstFix.reset();
    };
    std::istringstream lines(content.str());
    std::string line;
    bool timed = false;
    while (std::getline(lines, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        const std::string key = TimeKey(line);
        if (!key.empty()) {
            // The first sentence of the next second ends this second's burst.
            if (!burstKey.empty() && key != burstKey) flush();
            burstKey = key;
            timed = true;
        }
        if (SentenceType(line) == "RMC") burstFix = Field(line, 2) == "A";
        burst.push_back(line + "\r\n");
    }
    flush();
    if (!timed) return fail("holds no RMC, GGA or ZDA sentence");
    if (overfull) return fail("one second's RMC and GGA do not fit the UART ring");
    return out;
}

// ---- the receiver ------------------------------------------------------------------

GpsReceiver::GpsReceiver() : ring_(std::make_shared<UartRing>()) {}

void GpsReceiver::Configure(std::shared_ptr<const GpsScene> gps) {
    const bool sameClock = gps && gps_ && gps->source == gps_->source &&
                           (gps->source == GpsScene::Source::Synthetic ? gps->utcSeconds == gps_->utcSeconds
                                                                       : gps->logPath == gps_->logPath);
    if (!sameClock) {
        clockPulse_ = pulsesDone_;
        fix_ = false;
    }
    if (!gps || !gps->sending) {
        fix_ = false;
        pending_.reset(); // a receiver that stops sends nothing more
    }
    gps_ = std::move(gps);
}

bool GpsReceiver::RunTo(uint64_t t, Oscillator& osc, double tempC) {
    bool moved = false;
    const uint64_t delay = gps_ ? gps_->messageDelayTicks : 0;
    for (;;) {
        if (pending_ && pending_->at <= t) {
            Deliver(pending_->text);
            ++messages_;
            pending_.reset();
        }
        // The pulses are seconds of the GPS; the ticks count the reference,
        // which runs fast or slow by its error. The next pulse is placed
        // already; the rate now places the ones after it.
        const double interval = static_cast<double>(kTicksPerSecond) * (1.0 + fe::ReferenceError(osc.tuneWord, tempC));
        const double nextPulse = PulseAt(static_cast<int64_t>(pulsesDone_) + 1);
        if (history_.back().interval != interval) {
            if (history_.back().first == pulsesDone_ + 1) history_.pop_back();
            history_.push_back(Segment{pulsesDone_ + 1, nextPulse, interval});
            if (history_.size() > kMaxSegments) history_.pop_front();
        }
        if (nextPulse > static_cast<double>(t)) break;
        // A long stretch in one step: only the last few messages can still
        // be seen in the ring, and nothing else changes from pulse to pulse
        // (a disciplined word walks its counts at once).
        const double ahead = (static_cast<double>(t) - nextPulse) / interval;
        const bool logDone = gps_ && gps_->source == GpsScene::Source::Log &&
                             pulsesDone_ >= clockPulse_ + gps_->log->size();
        if (ahead > kMessagesWritten + 2 && !pending_ &&
            (!gps_ || !gps_->sending || gps_->source == GpsScene::Source::Synthetic || logDone)) {
            const auto skip = static_cast<uint64_t>(ahead) - kMessagesWritten;
            pulsesDone_ += skip;
            if (gps_ && gps_->sending && !logDone) {
                messages_ += skip;
                fix_ = gps_->fix;
                if (fix_) pulseTick_ = static_cast<uint64_t>(PulseAt(static_cast<int64_t>(pulsesDone_)));
                moved |= Discipline(osc, fix_, skip);
            } else {
                fix_ = false;
            }
            continue;
        }
        const uint64_t k = ++pulsesDone_;
        const auto tick = static_cast<uint64_t>(nextPulse);
        if (!gps_ || !gps_->sending) {
            fix_ = false;
            continue;
        }
        std::string text;
        if (gps_->source == GpsScene::Source::Synthetic) {
            // Pulse k ends second utc + (k - clockPulse_ - 1).
            fix_ = gps_->fix;
            text = SyntheticMessage(*gps_, gps_->utcSeconds + static_cast<int64_t>(k - clockPulse_ - 1));
        } else if (k - clockPulse_ - 1 < gps_->log->size()) {
            const NmeaMessage& m = (*gps_->log)[k - clockPulse_ - 1];
            fix_ = m.fix;
            text = m.text;
        } else {
            fix_ = false; // the recording is over: the receiver is quiet
            continue;
        }
        if (fix_) pulseTick_ = tick;
        moved |= Discipline(osc, fix_, 1);
        pending_ = Pending{tick + delay, std::move(text)};
    }
    return moved;
}

std::optional<int64_t> GpsReceiver::SampleOfUtc(int64_t utcSeconds, uint16_t tuneWord, double tempC) const {
    if (!gps_ || gps_->source != GpsScene::Source::Synthetic) return std::nullopt;
    // Pulse k is UTC utc + (k - clockPulse_). Pulses run so far (and the
    // next, already placed) lie where they fell; those further ahead are
    // placed at the reference's present rate (a later change of rate
    // re-plans the scene).
    const int64_t k = static_cast<int64_t>(clockPulse_) + (utcSeconds - gps_->utcSeconds);
    const auto next = static_cast<int64_t>(pulsesDone_) + 1;
    const double interval = static_cast<double>(kTicksPerSecond) * (1.0 + fe::ReferenceError(tuneWord, tempC));
    const double tick = k <= next ? PulseAt(k) : PulseAt(next) + static_cast<double>(k - next) * interval;
    // The pulse is reported on its whole tick; the burst starts on the ADC
    // sample at or after it.
    const auto whole = static_cast<int64_t>(std::floor(tick));
    return whole >= 0 ? (whole + 1) / 2 : -((-whole) / 2);
}

double GpsReceiver::PulseAt(int64_t k) const {
    // The last segment that starts at or before k, else the first.
    auto it = std::upper_bound(history_.begin(), history_.end(), k,
                               [](int64_t v, const Segment& s) { return v < static_cast<int64_t>(s.first); });
    const Segment& s = it == history_.begin() ? *it : *std::prev(it);
    return s.tick + static_cast<double>(k - static_cast<int64_t>(s.first)) * s.interval;
}

uint32_t GpsReceiver::StatusWord() const {
    return writeIndex_ << 9 | static_cast<uint32_t>(messages_ & 3) << 18 | readIndex_ << 20;
}

void GpsReceiver::Deliver(const std::string& text) {
    auto ring = std::make_shared<UartRing>(*ring_);
    const size_t words = (text.size() + 3) / 4;
    for (size_t w = 0; w < words; ++w) {
        uint8_t* dst = ring->data() + 4 * ((writeIndex_ + w) % kUartRingWords);
        for (size_t b = 0; b < 4; ++b) dst[b] = 4 * w + b < text.size() ? static_cast<uint8_t>(text[4 * w + b]) : 0;
    }
    readIndex_ = writeIndex_;
    writeIndex_ = static_cast<uint32_t>((writeIndex_ + words) % kUartRingWords);
    ring_ = std::move(ring);
}

bool GpsReceiver::Discipline(Oscillator& osc, bool fix, uint64_t pulses) const {
    if (!osc.followGps || !fix || pulses == 0) return false;
    if (!osc.autoTarget) osc.autoTarget = static_cast<uint16_t>(std::min(osc.tuneWord + 20, 0xFFFF));
    const uint16_t target = gps_->disciplinedTune.value_or(*osc.autoTarget);
    if (osc.tuneWord == target) return false;
    const auto step = static_cast<uint16_t>(std::min<uint64_t>(pulses, osc.tuneWord < target
                                                                           ? target - osc.tuneWord
                                                                           : osc.tuneWord - target));
    osc.tuneWord = static_cast<uint16_t>(osc.tuneWord < target ? osc.tuneWord + step : osc.tuneWord - step);
    return true;
}

} // namespace lx::sim
