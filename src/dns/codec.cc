#include "dns/codec.h"

#include <string.h>

namespace rk {
namespace dns {
namespace {

void put16(uint8_t *p, uint16_t v) noexcept {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

}  // namespace

void ChangeNameToDnsLabels(uint8_t *out, const char *name, int32_t size) noexcept {
  if (name[0] == '\0' || size <= 1) {
    out[0] = 0;
    return;
  }
  // Each label is written one position to the right of its text, so its
  // length byte lands where the dot in front of it (or index 0) stood.
  int32_t p = 0;
  for (;;) {
    int32_t j = p;
    while (j < size - 2 && name[j] != '.' && name[j] != '\0') {
      out[j + 1] = static_cast<uint8_t>(name[j]);
      ++j;
    }
    out[p] = static_cast<uint8_t>(j - p);  // no 63-byte check: the high bits are lost
    if (name[j] == '\0' || j + 1 >= size - 1) {
      out[j + 1] = 0;
      return;
    }
    p = j + 1;
  }
}

size_t ChangeLabelsToDnsName(char *out, WireView labels) noexcept {
  // Reaching index 254 ends the text exactly as a zero byte there would, so
  // the input is taken as clipped to 254 bytes, with zeros behind the end.
  const uint8_t *in = labels.at(0);
  const size_t avail = labels.size() < kNameDecodeSpan ? labels.size() : kNameDecodeSpan;
  size_t pos = 0;
  for (;;) {
    const uint8_t b = pos < avail ? in[pos] : 0;
    if (b == 0) {
      const size_t end = pos == 0 ? 0 : pos - 1;
      out[end] = '\0';
      return end;
    }
    if (pos != 0) out[pos - 1] = '.';
    // The length byte is a plain count: a compression pointer is not followed.
    // Each character lands one place to the left of its input index.
    const size_t last = pos + b;
    const size_t stop = last < avail ? last + 1 : avail;
    size_t j = pos + 1;
    for (; j < stop && in[j] != 0; ++j) out[j - 1] = static_cast<char>(in[j]);
    if (j < stop || last >= avail) {  // a zero byte inside the label, or the clip
      out[j - 1] = '\0';
      return j - 1;
    }
    pos = last + 1;
  }
}

void ChangeLabelsToDnsName(char *out, const uint8_t *labels) noexcept {
  ChangeLabelsToDnsName(out, WireView(labels, kNameDecodeSpan));
}

void ReverseDnsName(char *out, const char *text, int32_t length) noexcept {
  if (length < 1) {
    out[0] = '\0';
    return;
  }
  // Labels are taken front to back and written back to front, each with the
  // separator (terminator for the first) behind it.
  int32_t start = 0;
  int32_t cursor = length;
  bool first = true;
  do {
    int32_t e = start + 1;  // text[start] itself is not examined
    while (e < length && text[e] != '.' && text[e] != '\0') ++e;
    out[cursor] = first ? '\0' : '.';
    first = false;
    const int32_t n = e - start;
    memcpy(out + cursor - n, text + start, static_cast<size_t>(n));
    cursor -= n + 1;
    start = e + 1;
  } while (start < length);
  out[length] = '\0';
}

size_t BuildQuery(uint8_t *buf, uint16_t idNetworkOrder, const char *name, size_t nameLength,
                  uint16_t qtype) noexcept {
  memcpy(buf, &idNetworkOrder, sizeof idNetworkOrder);
  buf[2] = kFlagRecursionDesired;
  buf[3] = 0;
  put16(buf + kOffQdCount, 1);
  // ANCOUNT, NSCOUNT and ARCOUNT stay as the zeroed buffer has them.
  if (nameLength != 0) {
    ChangeNameToDnsLabels(buf + kHeaderSize, name, static_cast<int32_t>(nameLength + 2));
  }
  put16(buf + kHeaderSize + nameLength + 4, kClassIn);
  SetQueryType(buf, nameLength, qtype);
  return nameLength + kQueryOverhead;
}

void SetQueryType(uint8_t *buf, size_t nameLength, uint16_t qtype) noexcept {
  put16(buf + kHeaderSize + nameLength + 2, qtype);
}

}  // namespace dns
}  // namespace rk
