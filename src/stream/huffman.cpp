#include "stream/huffman.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>

namespace nvb {

struct HuffmanNode {
    std::uint16_t symbol;
    std::uint32_t weight;
    HuffmanNode* left;
    HuffmanNode* right;
    HuffmanNode* parent;
};

namespace {

// Byte frequencies measured on receiver logs, copied as published; the tree depends on
// every value, so they must not be tidied. The end symbol 256 has weight 1.
constexpr std::array<std::uint32_t, kHuffmanSymbolCount> kWeights = {
    1515815, 241282, 400337, 386328, 187548, 74852, 83794, 126506, 133977, 66051, 57172, 142794, 59457, 58406, 67332, 54038,
    65758, 54495, 72029, 57270, 52808, 52701, 44938, 42282, 36101, 103419, 27786, 30895, 31097, 33340, 36110, 65250,
    483684, 37535, 840755, 156112, 92100, 58501, 54624, 38189, 38148, 25178, 91797, 22714, 20314, 18825, 18698, 19699,
    145805, 17260, 18033, 18909, 20866, 17443, 19281, 18506, 22113, 19906, 19280, 30858, 18130, 18163, 17638, 37031,
    154786, 17338, 101712, 16846, 30444, 17159, 17615, 21138, 68709, 17040, 15272, 15878, 16448, 17467, 16608, 17580,
    83717, 17441, 16108, 16380, 16027, 16996, 17077, 18151, 19685, 15030, 14718, 15676, 15051, 15298, 14948, 31936,
    53826, 23546, 32911, 21363, 14291, 13434, 55692, 21594, 29185, 13325, 12344, 13144, 12754, 13863, 12396, 12946,
    44596, 13855, 13409, 12509, 12229, 11729, 11994, 12736, 12269, 15160, 14369, 21426, 12666, 11759, 11742, 28967,
    94807, 80320, 54724, 63876, 52727, 50806, 121922, 58835, 72122, 45937, 44144, 43163, 41795, 39933, 39158, 38281,
    53258, 35315, 33134, 37265, 29358, 31772, 28862, 31367, 25198, 26645, 24447, 25876, 21268, 22360, 21147, 36912,
    29806, 19685, 18594, 20184, 16136, 16754, 16523, 17927, 15259, 15369, 68458, 17399, 14701, 14624, 13957, 18510,
    23344, 16507, 14111, 15534, 13698, 13079, 13310, 84860, 13452, 37645, 17685, 52930, 12851, 13049, 12853, 21813,
    59472, 13223, 13389, 12202, 11910, 12585, 12029, 11866, 13153, 12267, 12528, 11366, 11484, 11863, 11096, 11711,
    17781, 12107, 11007, 11765, 11503, 11404, 11182, 11536, 14909, 11300, 11518, 11571, 12147, 11722, 10871, 87646,
    18396, 11444, 10519, 10927, 11236, 11350, 10544, 11442, 12400, 11489, 10212, 11277, 11565, 11763, 10622, 12232,
    16357, 34490, 10582, 13760, 20561, 14805, 11863, 13739, 18073, 36431, 15534, 24556, 49215, 90589, 32972, 424505,
    1,
};

constexpr int kNodeCount = 2 * kHuffmanSymbolCount - 1;

// The nodes live in a fixed pool: a rebuild puts the same tree in the same places, so a
// decoder position kept across nvbdll_initNVBLib never points outside the pool.
std::array<HuffmanNode, kNodeCount> nodePool;
std::array<HuffmanCode, kHuffmanSymbolCount> codeTable;
const HuffmanNode* root = nullptr;
int symbolCount = 0;
// Statistics of the encoder, process-wide; nothing reads them. Atomic, so that encoders
// in different threads never race on them.
std::atomic<std::uint32_t> encodedBitsIn = 0;
std::atomic<std::uint32_t> encodedBitsOut = 0;

bool isLeaf(const HuffmanNode* node) { return node->left == nullptr && node->right == nullptr; }

// Ascending weight; equal weights keep their order, so a parent stays ahead of its equals.
void sortByWeight(HuffmanNode** list, std::size_t count) {
    std::stable_sort(list, list + count,
                     [](const HuffmanNode* a, const HuffmanNode* b) { return a->weight < b->weight; });
}

}  // namespace

bool huffmanBuild() {
    if (root != nullptr) return false;
    // A fixed array, so that building the tree needs no allocation that could fail.
    std::array<HuffmanNode*, kHuffmanSymbolCount> list{};
    std::size_t count = 0;
    // Each new leaf goes to the head, so the list starts in falling symbol order.
    for (int symbol = kHuffmanSymbolCount - 1; symbol >= 0; --symbol) {
        HuffmanNode& leaf = nodePool[static_cast<std::size_t>(symbol)];
        leaf = HuffmanNode{static_cast<std::uint16_t>(symbol), kWeights[static_cast<std::size_t>(symbol)],
                           nullptr, nullptr, nullptr};
        codeTable[static_cast<std::size_t>(symbol)] =
            HuffmanCode{&leaf, static_cast<std::uint16_t>(symbol), leaf.weight, 0, 0};
        list[count++] = &leaf;
    }
    sortByWeight(list.data(), count);
    std::size_t next = kHuffmanSymbolCount;
    while (count >= 2) {
        HuffmanNode* a = list[0];
        HuffmanNode* b = list[1];
        HuffmanNode& parent = nodePool[next++];
        parent = HuffmanNode{0, a->weight + b->weight, a, b, nullptr};
        a->parent = &parent;
        b->parent = &parent;
        // The two lightest leave the head, and their parent goes before the first node at
        // least as heavy: where a stable sort of the list with the parent at its head puts
        // it, the rest being in order already.
        HuffmanNode** rest = list.data() + 2;
        HuffmanNode** end = list.data() + count;
        HuffmanNode** heavier = std::lower_bound(rest, end, parent.weight,
                                                 [](const HuffmanNode* node, auto weight) { return node->weight < weight; });
        HuffmanNode** slot = std::copy(rest, heavier, list.data());
        *slot = &parent;
        std::copy(heavier, end, slot + 1);
        --count;
    }
    root = list[0];
    for (HuffmanCode& entry : codeTable) {
        std::uint16_t code = 0;
        std::uint8_t length = 0;
        for (const HuffmanNode* node = entry.leaf; node->parent != nullptr; node = node->parent) {
            if (node->parent->left == node) code = static_cast<std::uint16_t>(code | (1u << length));
            ++length;
        }
        entry.code = code;
        entry.length = length;
    }
    symbolCount = kHuffmanSymbolCount;
    return true;
}

void huffmanFree() {
    root = nullptr;
    symbolCount = 0;
    nodePool = {};
    codeTable = {};
}

const HuffmanNode* huffmanRoot() { return root; }

const HuffmanCode& huffmanCodeOf(std::uint16_t symbol) { return codeTable[symbol % kHuffmanSymbolCount]; }

int huffmanEncodeSymbol(nvb_huffman_encoder_t& encoder, std::uint16_t symbol, std::uint8_t* out, bool flush) {
    if (flush) {
        if (encoder.bitCount == 0) return 0;
        const auto padded = static_cast<std::uint8_t>(encoder.partial << (8 - encoder.bitCount));
        out[0] = padded;
        encoder.partial = 0;
        encoder.bitCount = 0;
        return 1;
    }
    const HuffmanCode& entry = huffmanCodeOf(symbol);
    encodedBitsIn.fetch_add(8, std::memory_order_relaxed);
    encodedBitsOut.fetch_add(entry.length, std::memory_order_relaxed);
    std::uint32_t code = entry.code;
    unsigned remaining = entry.length;
    int written = 0;
    while (remaining > 0) {
        const unsigned room = 8u - encoder.bitCount;
        if (remaining < room) {
            encoder.partial = static_cast<std::uint8_t>((encoder.partial << remaining) | code);
            encoder.bitCount = static_cast<std::uint8_t>(encoder.bitCount + remaining);
            break;
        }
        const unsigned rest = remaining - room;
        const auto byte = static_cast<std::uint8_t>((encoder.partial << room) | (code >> rest));
        out[written] = byte;
        ++written;
        encoder.partial = 0;
        encoder.bitCount = 0;
        code &= (1u << rest) - 1u;
        remaining = rest;
    }
    return written;
}

std::uint32_t huffmanEncodeBuffer(nvb_huffman_encoder_t& encoder, const std::uint8_t* in, std::uint8_t* out,
                                  std::uint16_t count) {
    std::uint32_t written = 0;
    for (std::uint16_t i = 0; i < count; ++i) {
        written += static_cast<std::uint32_t>(huffmanEncodeSymbol(encoder, in[i], out + written, false));
    }
    return written;
}

int huffmanDecodeByte(const void*& position, std::uint8_t byte, std::uint8_t* out, bool reset) {
    if (reset || root == nullptr) {
        position = root;
        return 0;
    }
    auto node = static_cast<const HuffmanNode*>(position);
    if (node == nullptr) node = root;
    int stored = 0;
    for (int bit = 7; bit >= 0; --bit) {
        node = ((byte >> bit) & 1u) != 0 ? node->left : node->right;
        if (isLeaf(node)) {
            if (node->symbol == kHuffmanEndSymbol) {
                position = root;
                return -1;
            }
            out[stored++] = static_cast<std::uint8_t>(node->symbol);
            node = root;
        }
    }
    position = node;
    return stored;
}

}  // namespace nvb
