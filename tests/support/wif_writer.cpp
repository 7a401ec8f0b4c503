// tests/support/wif_writer.cpp
#include "tests/support/wif_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>

namespace vtest {

WifDraft randomDraft(uint32_t seed, uint32_t ends, uint32_t picks, uint32_t shafts,
                     uint32_t treadles, bool liftPlan, bool twoShafts) {
  std::mt19937 rng(seed);
  const auto upTo = [&](uint32_t n) { return uint32_t(rng() % n) + 1; };
  WifDraft d;
  d.shafts = shafts, d.treadles = treadles, d.ends = ends, d.picks = picks;
  d.liftPlanFlag = liftPlan;
  for (uint32_t x = 0; x < ends; ++x) {
    d.threading.push_back({upTo(shafts)});
    if (twoShafts && rng() % 5 == 0) d.threading.back().push_back(upTo(shafts));
  }
  const auto someShafts = [&] {
    std::vector<uint32_t> s;
    for (uint32_t k = 1; k <= shafts; ++k)
      if (rng() % 2) s.push_back(k);
    return s;
  };
  for (uint32_t t = 0; t < treadles; ++t) d.tieUp.push_back(someShafts());
  for (uint32_t p = 0; p < picks; ++p) {
    d.treadling.push_back({upTo(treadles)});
    if (rng() % 7 == 0) d.treadling.back().push_back(upTo(treadles));  // only the first counts
    d.liftPlan.push_back(someShafts());
  }
  return d;
}

namespace {

std::string joined(const std::vector<uint32_t>& v) {
  std::string s;
  for (size_t i = 0; i < v.size(); ++i) {
    if (i) s += ',';
    s += std::to_string(v[i]);
  }
  return s;
}

void lower(std::string& s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = char(c + 32);
}

}  // namespace

Bytes wifText(const WifDraft& d) {
  std::string t;
  const auto line = [&](std::string s) {
    if (!d.upperCase) lower(s);
    t += s + d.lineEnd;
  };
  const auto flag = [](bool b) { return b ? "yes" : "no"; };
  const auto section = [&](const char* name, const std::vector<std::vector<uint32_t>>& rows) {
    bool any = false;
    for (const auto& r : rows) any |= !r.empty();
    if (!any) return;  // an empty section would swallow the next section line
    line(name);
    for (size_t i = 0; i < rows.size(); ++i)
      if (!rows[i].empty()) line(std::to_string(i + 1) + "=" + joined(rows[i]));
  };
  line("[WIF]");
  line("Version=1.1");
  line("[CONTENTS]");
  line("WEAVING=true");
  line(std::string("TIEUP=") + flag(d.tieUpFlag));
  line(std::string("THREADING=") + flag(d.threadingFlag));
  line(std::string("TREADLING=") + flag(d.treadlingFlag));
  line(std::string("LIFTPLAN=") + flag(d.liftPlanFlag));
  line("[WEAVING]");
  line("Shafts=" + std::to_string(d.shafts));
  line("Treadles=" + std::to_string(d.treadles));
  line("[WARP]");
  line("Threads=" + std::to_string(d.ends));
  line("[WEFT]");
  line("Threads=" + std::to_string(d.picks));
  section("[THREADING]", d.threading);
  section("[TIEUP]", d.tieUp);
  section("[TREADLING]", d.treadling);
  section("[LIFTPLAN]", d.liftPlan);
  return Bytes(t.begin(), t.end());
}

namespace {

// Lines as the format's readers take them: LF, CR or CR LF ends, where one
// line end left over from the line before is skipped; lower-cased.
struct PlainLines {
  const Bytes& b;
  size_t at = 0;
  bool eof = false;
  int get() { return at < b.size() ? b[at++] : (eof = true, -1); }
  std::string next() {
    int c = get();
    if ((c == '\r' || c == '\n') && !eof) c = get();
    std::string s;
    for (; !eof && s.size() < 49152 && c != '\r' && c != '\n'; c = get()) s += char(c);
    s.resize(std::min<size_t>(s.size(), 49151));  // a long line loses its last byte
    lower(s);
    return s;
  }
};

bool starts(const std::string& s, const char* p) { return s.rfind(p, 0) == 0; }

int sectionOf(const std::string& s) {
  const char* names[] = {"[contents]", "[weaving]", "[warp]", "[weft]",
                         "[threading]", "[liftplan]", "[tieup]", "[treadling]"};
  for (int i = 0; i < 8; ++i)
    if (starts(s, names[i])) return i + 2;
  return 0;
}

template <class F>
void eachLine(PlainLines& in, std::string line, F f) {
  int section = 1;
  for (;;) {
    if (!line.empty() && line[0] == '[') {
      section = sectionOf(line);
      line = in.next();  // taken as a key line, whatever it is
    }
    f(section, line);
    if (in.eof) return;
    line = in.next();
  }
}

std::vector<int> listAfterEquals(const std::string& s) {
  std::vector<int> v;
  size_t eq = s.find('=');
  if (eq == std::string::npos) return v;
  for (size_t p = eq + 1;;) {
    v.push_back(std::atoi(s.c_str() + p));
    const size_t comma = s.find(',', p);
    if (comma == std::string::npos) return v;
    p = comma + 1;
  }
}

}  // namespace

WifReading readWifPlainly(const Bytes& file) {
  PlainLines in{file};
  std::string line = in.next();
  for (int n = 1; starts(line, "[wif]") && n < 11 && !in.eof; ++n) line = in.next();
  const WifReading refused{6, 0, 0, {}};
  if (starts(line, "[wif]")) return refused;

  int shafts = 0, treadles = 0, width = 0, height = 0;
  bool tieUp = false, threading = false, treadling = false, liftPlan = false;
  const auto yes = [](const std::string& v) {
    return starts(v, "yes") || starts(v, "1") || starts(v, "on") || starts(v, "true");
  };
  eachLine(in, line, [&](int section, const std::string& l) {
    const auto value = [&](const char* k) { return l.substr(std::strlen(k)); };
    if (section == 2) {
      if (starts(l, "tieup=")) tieUp = yes(value("tieup="));
      if (starts(l, "threading=")) threading = yes(value("threading="));
      if (starts(l, "treadling=")) treadling = yes(value("treadling="));
      if (starts(l, "liftplan=")) liftPlan = yes(value("liftplan="));
    }
    const auto positive = [&](const char* k, int& to) {
      if (starts(l, k) && std::atoi(value(k).c_str()) > 0) to = std::atoi(value(k).c_str());
    };
    if (section == 3) {
      positive("shafts=", shafts);
      if (starts(l, "shafts=") && shafts > 0) width = shafts;
      positive("treadles=", treadles);
    }
    if (section == 4) positive("threads=", width);
    if (section == 5) positive("threads=", height);
  });
  if (shafts <= 1 || treadles <= 1 || width <= 1 || height <= 1 || width > 262140 ||
      height > 262140)
    return refused;

  std::map<int, int> first, second, treadleOf;
  std::map<int, std::set<int>> tie, lift;
  PlainLines again{file};
  eachLine(again, again.next(), [&](int section, const std::string& l) {
    int a = 0, b = 0, c = 0;
    if (section == 9 && std::sscanf(l.c_str(), "%d=%d", &a, &b) == 2 && a >= 1 && b >= 1 &&
        b <= 8192)
      treadleOf[a - 1] = b - 1;
    if ((section == 8 || section == 7) && std::sscanf(l.c_str(), "%d", &a) == 1 && a >= 1)
      for (int s : listAfterEquals(l))
        if (s >= 1 && s <= 8192) (section == 8 ? tie : lift)[a - 1].insert(s - 1);
    if (section == 6) {
      const bool two = l.find(',') != std::string::npos;
      const int n = std::sscanf(l.c_str(), two ? "%d=%d,%d" : "%d=%d", &a, &b, &c);
      if (n == (two ? 3 : 2) && a >= 1) {
        if (b >= 1 && b <= 8192) first[a - 1] = b - 1;
        if (two && c >= 1 && c <= 8192) second[a - 1] = c - 1;
      }
    }
  });

  WifReading r{0, uint32_t(width), uint32_t(height), {}};
  const uint32_t row = (r.width + 7) / 8;
  r.rows.assign(size_t{row} * r.height, 0);
  const auto at = [](const std::map<int, int>& m, int k, int otherwise) {
    auto i = m.find(k);
    return i == m.end() ? otherwise : i->second;
  };
  std::vector<int> s1(size_t(width), 0), s2(size_t(width), 0);
  for (int x = 0; x < width; ++x) s1[x] = at(first, x, x & 0xFFFF), s2[x] = at(second, x, 0xFFFF);
  for (int y = 0; y < height; ++y) {
    std::vector<bool> up(65536, false);  // shafts from 8192 on never rise
    if (liftPlan) {
      for (int s : lift[y]) up[s] = true;
    } else if (treadling || tieUp || threading) {
      const int t = at(treadleOf, y, y & 0xFFFF);
      if (t < 8192)
        for (int s : tie[t]) up[s] = true;
      if (!tieUp && t < 8192) up[t] = true;
    }
    for (int x = 0; x < width; ++x)
      if (up[s1[x]] || up[s2[x]]) r.rows[size_t(y) * row + size_t(x) / 8] |= uint8_t(0x80 >> (x % 8));
  }
  return r;
}

}  // namespace vtest
