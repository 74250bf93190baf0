// BER decoding of the ca-certificates corpus, side by side:
//   sfber      SfBerComponent validation plus a walk of every item
//   openssl    d2i_X509 (full certificate decoding into OpenSSL's structures)
//   libtasn1   a structure-free walk of every item with asn1_get_tag_der and
//              asn1_get_length_der
// All three read the same DER bytes, converted once from the PEM bundle.
// Bytes/s and items/s (certificates per second) are reported per run.
#include <benchmark/benchmark.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "sf/sflib.h"

// In ber_tasn1.cpp (libtasn1's and OpenSSL's headers cannot meet in one
// file): items of a libtasn1 walk over der, or -1 on a bad item.
long tasn1Walk(const unsigned char* der, long len);

namespace {

struct Corpus {
  std::vector<std::string> der;
  std::vector<std::unique_ptr<sf::Buffer>> buffers;
  size_t bytes = 0;
};

const Corpus& corpus() {
  static Corpus* c = [] {
    Corpus* out = new Corpus;
    const char* env = getenv("SF_BER_BUNDLE");
    const char* path = env ? env : "/etc/ssl/certs/ca-certificates.crt";
    FILE* f = fopen(path, "r");
    if (!f) {
      fprintf(stderr, "ber_bench: cannot open %s\n", path);
      exit(2);
    }
    while (X509* x = PEM_read_X509(f, nullptr, nullptr, nullptr)) {
      unsigned char* der = nullptr;
      int n = i2d_X509(x, &der);
      if (n > 0) {
        out->der.emplace_back(reinterpret_cast<char*>(der), static_cast<size_t>(n));
        out->bytes += static_cast<size_t>(n);
        auto b = std::make_unique<sf::Buffer>();
        b->append(der, static_cast<size_t>(n));
        out->buffers.push_back(std::move(b));
      }
      OPENSSL_free(der);
      X509_free(x);
    }
    fclose(f);
    if (out->der.empty()) {
      fprintf(stderr, "ber_bench: no certificates in %s\n", path);
      exit(2);
    }
    return out;
  }();
  return *c;
}

void report(benchmark::State& state, const Corpus& c) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.bytes));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * c.der.size()));
  state.counters["certs"] = static_cast<double>(c.der.size());
  state.counters["corpus_bytes"] = static_cast<double>(c.bytes);
}

// Visits every item: identifier, length, and the content of constructed
// items, through the component's navigation.
size_t walk(sfber::SfBerComponent& comp) {
  if (comp.GetLength() == 0) return 0;
  size_t items = 0;
  comp.FirstItem();
  do {
    unsigned pos;
    size_t len;
    int ident = comp.GetItemHeader(&pos, &len);
    ++items;
    if (ident & 0x20) {
      sfber::SfBerComponent inner(comp.GetPDU(), pos, len);
      items += walk(inner);
    }
  } while (comp.NextItem(1) != 0);
  return items;
}

void BM_SfBer_ValidateAndWalk(benchmark::State& state) {
  const Corpus& c = corpus();
  size_t items = 0;
  for (auto _ : state) {
    for (const auto& b : c.buffers) {
      sfber::SfBerComponent comp;
      comp.AssignPDU(b.get(), 0, b->size());
      comp.ValidateStructure();
      items += walk(comp);
    }
  }
  benchmark::DoNotOptimize(items);
  report(state, c);
}
BENCHMARK(BM_SfBer_ValidateAndWalk);

void BM_SfBer_ValidateOnly(benchmark::State& state) {
  const Corpus& c = corpus();
  for (auto _ : state) {
    for (const auto& b : c.buffers) {
      sfber::SfBerComponent comp;
      comp.AssignPDU(b.get(), 0, b->size());
      comp.ValidateStructure();
      benchmark::DoNotOptimize(comp.IsValidated());
    }
  }
  report(state, c);
}
BENCHMARK(BM_SfBer_ValidateOnly);

void BM_OpenSSL_d2i_X509(benchmark::State& state) {
  const Corpus& c = corpus();
  for (auto _ : state) {
    for (const std::string& d : c.der) {
      const unsigned char* p = reinterpret_cast<const unsigned char*>(d.data());
      X509* x = d2i_X509(nullptr, &p, static_cast<long>(d.size()));
      if (!x) state.SkipWithError("d2i_X509 failed");
      X509_free(x);
    }
  }
  report(state, c);
}
BENCHMARK(BM_OpenSSL_d2i_X509);

void BM_Tasn1_Walk(benchmark::State& state) {
  const Corpus& c = corpus();
  long items = 0;
  for (auto _ : state) {
    for (const std::string& d : c.der) {
      long n =
          tasn1Walk(reinterpret_cast<const unsigned char*>(d.data()), static_cast<long>(d.size()));
      if (n < 0) state.SkipWithError("libtasn1 walk failed");
      items += n;
    }
  }
  benchmark::DoNotOptimize(items);
  report(state, c);
}
BENCHMARK(BM_Tasn1_Walk);

// Both walks must see the same number of items, or the comparison is moot.
void BM_CheckSameItems(benchmark::State& state) {
  const Corpus& c = corpus();
  for (auto _ : state) {
    for (size_t i = 0; i < c.der.size(); ++i) {
      sfber::SfBerComponent comp;
      comp.AssignPDU(c.buffers[i].get(), 0, c.buffers[i]->size());
      comp.ValidateStructure();
      long ours = static_cast<long>(walk(comp));
      long theirs = tasn1Walk(reinterpret_cast<const unsigned char*>(c.der[i].data()),
                              static_cast<long>(c.der[i].size()));
      if (ours != theirs) state.SkipWithError("item counts differ");
    }
  }
}
BENCHMARK(BM_CheckSameItems)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
