#!/usr/bin/env python3
"""A second implementation of the library's two digests, for the tests.

Prints digest_vectors.txt. It follows the published algorithms (RFC 1321 and
FIPS 180-4) word for word, with the word size as its only change, and shares
nothing with the library: slow, plain, and in another language on purpose.
"""

import hashlib
import math
import struct

WORD = 64
LENGTHS = [0, 1, 3, 54, 55, 56, 57, 63, 64, 65, 118, 119, 120, 127, 128, 129,
           191, 1000, 4096, 65535]


def message(length):
    """A sequence that the tests make again: see MessageOf in digest_test.cc."""
    state = length
    out = bytearray()
    for _ in range(length):
        state = (state * 1103515245 + 12345) % 2**32
        out.append(state >> 24)
    return bytes(out)


def primes(count):
    found = []
    number = 2
    while len(found) < count:
        if all(number % prime for prime in found):
            found.append(number)
        number += 1
    return found


def root_fraction(number, degree):
    """The first 32 bits behind the point of the root of `number`."""
    scaled = number << (32 * degree)
    low, high = 0, 1 << 40
    while high - low > 1:
        middle = (low + high) // 2
        low, high = (middle, high) if middle**degree <= scaled else (low, middle)
    return low % 2**32


def md5(data, word=WORD):
    """The digest and what the last 8-byte store leaves behind it."""
    mask = 2**word - 1
    sines = [int(2**32 * abs(math.sin(i + 1))) for i in range(64)]
    shifts = [[7, 12, 17, 22], [5, 9, 14, 20], [4, 11, 16, 23], [6, 10, 15, 21]]

    def rotate(x, s):
        return ((x << s) | (x >> (32 - s))) & mask

    state = [0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476]
    bits = 8 * len(data)
    data += b"\x80" + bytes((55 - len(data)) % 64) + struct.pack("<Q", bits)
    for start in range(0, len(data), 64):
        block = data[start:start + 64]
        if word == 64:  # Sixteen wide words: the block, and zeros behind it.
            x = struct.unpack("<16Q", block + bytes(64))
        else:
            x = struct.unpack("<16I", block)
        a, b, c, d = state
        for i in range(64):
            if i < 16:
                f, k = (b & c) | (~b & d), i
            elif i < 32:
                f, k = (b & d) | (c & ~d), (5 * i + 1) % 16
            elif i < 48:
                f, k = b ^ c ^ d, (3 * i + 5) % 16
            else:
                f, k = c ^ (b | (~d & mask)), (7 * i) % 16
            total = (a + (f & mask) + x[k] + sines[i]) & mask
            a, d, c, b = d, c, b, (
                b + rotate(total, shifts[i // 16][i % 4])) & mask
        state = [(old + new) & mask for old, new in zip(state, (a, b, c, d))]
    out = b"".join(struct.pack("<I", value % 2**32) for value in state)
    return out + struct.pack("<I", state[3] >> 32)


def sha256(data, word=WORD):
    mask = 2**word - 1
    constants = [root_fraction(prime, 3) for prime in primes(64)]
    state = [root_fraction(prime, 2) for prime in primes(8)]

    def rotr(x, s):
        return ((x >> s) | (x << (word - s))) & mask

    bits = 8 * len(data) % 2**32
    data += b"\x80" + bytes((55 - len(data)) % 64) + struct.pack(">Q", bits)
    for start in range(0, len(data), 64):
        w = list(struct.unpack(">16I", data[start:start + 64]))
        for t in range(16, 64):
            s0 = rotr(w[t - 15], 7) ^ rotr(w[t - 15], 18) ^ (w[t - 15] >> 3)
            s1 = rotr(w[t - 2], 17) ^ rotr(w[t - 2], 19) ^ (w[t - 2] >> 10)
            w.append((s1 + w[t - 7] + s0 + w[t - 16]) & mask)
        a, b, c, d, e, f, g, h = state
        for t in range(64):
            t1 = (h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25))
                  + ((e & f) ^ (~e & g)) + constants[t] + w[t])
            t2 = ((rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22))
                  + ((a & b) ^ (a & c) ^ (b & c)))
            a, b, c, d, e, f, g, h = (
                (t1 + t2) & mask, a, b, c, (d + t1) & mask, e, f, g)
        state = [(x + y) & mask
                 for x, y in zip(state, (a, b, c, d, e, f, g, h))]
    return b"".join(struct.pack(">I", value % 2**32) for value in state)


def main():
    # With words of 32 bits the same code has to give the standard digests.
    for length in LENGTHS:
        data = message(length)
        assert md5(data, 32)[:16] == hashlib.md5(data).digest()
        assert sha256(data, 32) == hashlib.sha256(data).digest()
    print("# Printed by digest_model.py: digest, length of the message, result")
    print("# in hexadecimal (for md5 all 20 bytes that are written).")
    for name, digest in (("md5", md5), ("sha256", sha256)):
        for length in LENGTHS:
            print(name, length, digest(message(length)).hex())


if __name__ == "__main__":
    main()
