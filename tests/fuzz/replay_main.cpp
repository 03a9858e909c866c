// Runs a fuzz target over the files of a corpus directory and a fixed number of seeded mutations of them, so
// that the target is also a plain regression test.
#include "fuzz.h"
#include "support/bytes.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

namespace {

constexpr int kMutationsPerSeed = 200;
constexpr size_t kLargestMutation = 20000;

std::vector<Bytes> read_corpus(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    std::vector<Bytes> corpus;
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return corpus;
}

void mutate(Bytes& bytes, const std::vector<Bytes>& corpus, std::mt19937& random) {
    const size_t at = bytes.empty() ? 0 : random() % bytes.size();
    const auto place = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    switch (random() % 5) {
    case 0:
        bytes.insert(place, static_cast<uint8_t>(random()));
        break;
    case 1:
        if (!bytes.empty()) {
            bytes[at] ^= static_cast<uint8_t>(1U << (random() % 8));
        }
        break;
    case 2:
        bytes.erase(place,
                    bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), at + random() % 16)));
        break;
    case 3: {
        const Bytes& other = corpus[random() % corpus.size()];
        bytes.insert(place, other.begin(), other.end());
        break;
    }
    default:
        bytes.insert(place, 1 + random() % 64, static_cast<uint8_t>(random()));
        break;
    }
    bytes.resize(std::min(bytes.size(), kLargestMutation));
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !std::filesystem::is_directory(argv[1])) {
        fprintf(stderr, "usage: %s CORPUS_DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::vector<Bytes> corpus = read_corpus(argv[1]);
    if (corpus.empty()) {
        fprintf(stderr, "%s: no seeds in %s\n", argv[0], argv[1]);
        return 2;
    }
    std::mt19937 random(1); // fixed: every run replays the same inputs
    size_t runs = 0;
    for (const Bytes& seed : corpus) {
        LLVMFuzzerTestOneInput(seed.data(), seed.size());
        Bytes input = seed;
        for (int i = 0; i < kMutationsPerSeed; ++i, ++runs) {
            mutate(input, corpus, random);
            LLVMFuzzerTestOneInput(input.data(), input.size());
        }
    }
    fprintf(stderr, "%zu seeds and %zu mutations\n", corpus.size(), runs);
    return 0;
}
