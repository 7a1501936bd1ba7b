#include "support/bytes.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <sstream>

namespace weir::test {

void expect_rows(Function* function, const std::vector<std::pair<std::string, std::string>>& rows) {
  for (const auto& [in, out] : rows) EXPECT_EQ(function(in), out) << "of " << in;
}

void expect_words(Function* function, const std::string& table) {
  std::istringstream lines(table);
  for (std::string in, out; std::getline(lines, in) && std::getline(lines, out);) {
    std::istringstream ins(in), outs(out);
    while (ins >> in && outs >> out) EXPECT_EQ(function(in), out) << "of " << in;
    EXPECT_FALSE(ins || outs >> out) << "not as many";
  }
}

int received(const std::string& text) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
  if (write(ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
  close(ends[1]);
  return ends[0];
}

std::string replaced(std::string text, const std::string& old, const std::string& by) {
  for (size_t at = 0; (at = text.find(old, at)) != text.npos; at += by.size())
    text.replace(at, old.size(), by);
  return text;
}

std::string pattern(size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random() >> 8); });
  return text;
}

// Runs the cipher once and ignores padding errors.
static std::string cipher(std::string in, std::string key, int encrypting, bool end) {
  const auto bytes = [](auto& text) { return bytes_of(text).data(); };
  key.resize(16);
  const unsigned char zero_iv[16] = {};
  std::string out(in.size() + 32, '\0');
  int size = 0;
  int last = 0;
  EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(context, EVP_aes_128_cbc(), nullptr, bytes(key), zero_iv, encrypting);
  EVP_CipherUpdate(context, bytes(out), &size, bytes(in), static_cast<int>(in.size()));
  if (!end || EVP_CipherFinal_ex(context, bytes(out) + size, &last) != 1) last = 0;
  EVP_CIPHER_CTX_free(context);
  out.resize(static_cast<size_t>(size + last));
  return out;
}

std::string encrypt(const std::string& plain, const std::string& key) {
  return cipher(plain, key, 1, true);
}

std::string decrypt(const std::string& text, const std::string& key, bool end) {
  return cipher(text, key, 0, end);
}

}  // namespace weir::test
