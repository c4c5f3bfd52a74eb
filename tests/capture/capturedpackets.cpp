// SPDX-License-Identifier: MIT
#include "capturedpackets.h"

#include <gtest/gtest.h>

#include <QFile>

#include <pcap/pcap.h>

std::vector<CaptureRecord> capturedPackets(const QString& path)
{
    char wrong[PCAP_ERRBUF_SIZE] = {};
    pcap_t* const file = pcap_open_offline_with_tstamp_precision(
        QFile::encodeName(path).constData(), PCAP_TSTAMP_PRECISION_NANO, wrong);
    std::vector<CaptureRecord> read;
    if (file == nullptr) {
        ADD_FAILURE() << wrong;
        return read;
    }
    EXPECT_EQ(pcap_datalink(file), DLT_WIRESHARK_UPPER_PDU);
    pcap_pkthdr* head = nullptr;
    const u_char* bytes = nullptr;
    while (pcap_next_ex(file, &head, &bytes) == 1) {
        EXPECT_EQ(head->caplen, head->len);
        const auto one = CaptureRecord::decode(
            QByteArray(reinterpret_cast<const char*>(bytes), static_cast<int>(head->caplen)));
        if (!one) {
            ADD_FAILURE() << "no packet of ours";
            break;
        }
        read.push_back(*one);
        read.back().time = head->ts.tv_sec * 1000000000 + head->ts.tv_usec;
    }
    pcap_close(file);
    return read;
}
