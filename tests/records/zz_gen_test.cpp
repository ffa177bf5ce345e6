#include "support/plain_round_trip.h"
#include <gtest/gtest.h>
#include <zlib.h>
#include <cstdio>
#include <functional>
#include <fstream>
#include <charconv>
namespace {
using nvbtest::Bytes;
struct Tok {
    std::string text;
    Bytes bytes;
    void add(const std::string& t, const Bytes& b) { if (!text.empty()) text += ' '; text += t; bytes.insert(bytes.end(), b.begin(), b.end()); }
    Tok& u8(std::uint64_t v) { add("u8:" + num(v, 1), nvbtest::Body().u8(v).bytes); return *this; }
    Tok& u16(std::uint64_t v) { add("u16:" + num(v, 2), nvbtest::Body().u16(v).bytes); return *this; }
    Tok& u32(std::uint64_t v) { add("u32:" + num(v, 4), nvbtest::Body().u32(v).bytes); return *this; }
    Tok& f32(float v) { char b[40] = {}; std::to_chars(b, b + 39, v); add(std::string("f32:") + b, nvbtest::Body().f32(v).bytes); return *this; }
    Tok& f64(double v) { char b[40] = {}; std::to_chars(b, b + 39, v); add(std::string("f64:") + b, nvbtest::Body().f64(v).bytes); return *this; }
    Tok& raw(const Bytes& r) { std::string h; char b[4]; for (auto x : r) { std::snprintf(b, 4, "%02x", x); h += b; } add(h, r); return *this; }
    static std::string num(std::uint64_t v, int w) {
        std::uint64_t mask = w == 8 ? ~0ull : ((1ull << (8 * w)) - 1); v &= mask;
        if (w >= 2 && v >= mask - 0x1FF) { char b[24]; std::snprintf(b, 24, "0x%llX", (unsigned long long)v); return b; }
        return std::to_string(v);
    }
};
struct Fields {
    Tok body;
    Fields& u8(std::uint64_t v, int n = 1) { return repeat(n, [&](int i) { body.u8(v + i); }); }
    Fields& u16(std::uint64_t v, int n = 1) { return repeat(n, [&](int i) { body.u16(v + 3 * i); }); }
    Fields& u32(std::uint64_t v, int n = 1) { return repeat(n, [&](int i) { body.u32(v + 1000 * i); }); }
    Fields& f32(float v, int n = 1) { return repeat(n, [&](int i) { body.f32(v * (1.0f + 0.5f * i)); }); }
    Fields& f64(double v, int n = 1) { return repeat(n, [&](int i) { body.f64(v * (1.0 + 0.125 * i)); }); }
    Fields& repeat(int n, const std::function<void(int)>& add) { for (int i = 0; i < n; ++i) add(i); return *this; }
};
struct R33 { std::string name; Tok body; };
R33 rec33(std::uint8_t subtype, const Fields& f) { Tok t; t.u8(subtype); if (!f.body.text.empty()) t.text += " " + f.body.text; t.bytes.insert(t.bytes.end(), f.body.bytes.begin(), f.body.bytes.end()); return {"", t}; }
Fields tagged() { return Fields().u16(2301).u32(345600200); }
TEST(Gen, Rec33) {
    std::vector<std::pair<std::string, R33>> cases = {
#include "/tmp/trec/rec33_rows.inc"
    };
    std::ofstream out("/tmp/trec/rec33.out");
    for (auto& [name, r] : cases) {
        EXPECT_EQ(nvbtest::fieldBytes(r.body.text), r.body.bytes) << name;
        out << "    {\"name\": \"" << name << "\", \"body\": \"" << r.body.text << "\"},\n";
    }
}
using Body = Tok;
Tok tag() { return Tok().u8(0x80).u16(2301).u32(345600200); }
struct A { const char* name; int type; bool high; Tok body; int text; bool deflate; int dat; };
TEST(Gen, Aux) {
    std::vector<A> cases = {
#include "/tmp/trec/aux_rows.inc"
    };
    std::ofstream out("/tmp/trec/aux.out");
    for (auto& r : cases) {
        EXPECT_EQ(nvbtest::fieldBytes(r.body.text), r.body.bytes) << r.name;
        out << "    {\"name\": \"" << r.name << "\", \"type\": " << r.type << (r.high ? ", \"highLengthByte\": true" : "") << ", \"body\": \"" << r.body.text << "\"";
        if (r.text) out << (r.deflate ? ", \"deflatedText\": " : ", \"text\": ") << r.text;
        out << ", \"datLength\": " << r.dat << "},\n";
    }
}
}

