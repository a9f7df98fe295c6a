// Entry points of file hashes, the message cipher and archives.

#include "ZuHelper.h"

uint8_t ZuGetMd5AndSha1HashesOSX(const char* path, char* md5_text,
                                 char* sha1_text) {
  // Nothing asked for, nothing failed; one text alone is refused.
  if (md5_text == nullptr && sha1_text == nullptr) return 1;
  return GetMd5AndSha1(path, md5_text, sha1_text) != 0 ? 1 : 0;
}

int32_t Zu_CCCrypt_Message(const void* input, uint64_t input_length,
                           const void* key, uint64_t key_length, const void* iv,
                           void* output, uint64_t* output_length,
                           uint8_t encrypt) {
  return CCCrypt_Message(input, input_length, key, key_length, iv, output,
                         output_length, encrypt);
}

uint8_t ZuDecompress(const char* path) { return Decompress(path); }
