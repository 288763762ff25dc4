// The simulated card's model by itself: a card with a clock that the test turns, and a client that asks it.
#pragma once

#include "protocol/requests.h"
#include "simcard/model/card.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <vector>

namespace kestra::simcard {

class FakeHost final : public CardHost {
public:
    void complete(void* token, uint32_t status, uint32_t size) override {
        EXPECT_EQ(done.count(token), 0u) << "completed twice";
        done[token] = {status, size};
    }
    void signalEvent(uint32_t, uint64_t handle) override { signalled.push_back(handle); }
    uint64_t now100ns() override { return now; }

    std::map<void*, Outcome> done;
    std::vector<uint64_t> signalled;
    uint64_t now = 5'000'000;
};

class ModelCardTest : public testing::Test {
protected:
    void openClient() {
        m_host.done.clear(); // memory of an earlier client may serve again
        ASSERT_EQ(m_card->open(77, m_client), uint32_t(kStatusSuccess));
    }
    Outcome send(uint32_t code, const void* in, uint32_t inSize, void* out, uint32_t outSize, void* token = nullptr) {
        return m_card->request(
            {token, m_client, code, static_cast<const uint8_t*>(in), inSize, static_cast<uint8_t*>(out), outSize});
    }
    template <class In, class Out>
    Outcome send(uint32_t code, const In& in, Out& out, void* token = nullptr) {
        return send(code, &in, sizeof in, &out, sizeof out, token);
    }
    /// What is sent stays until the test ends, as it does while a request is pending; the answer is its token.
    template <class R>
    Outcome ask(const typename R::Sent& sent, typename R::Answer& answer) {
        std::vector<uint8_t>& kept = m_sent.emplace_back(sizeof sent);
        std::memcpy(kept.data(), &sent, sizeof sent);
        return send(R::kCode, kept.data(), sizeof sent, &answer, sizeof answer, &answer);
    }
    wire::Header header(uint8_t port = 0) const { return {port, m_session}; }
    void openSession() {
        wire::OpenSessionReply reply = {};
        ASSERT_EQ(ask<wire::OpenSession>({}, reply).status, uint32_t(kStatusSuccess));
        m_session = reply.sessionId;
    }
    /// Claims a port of the session, prepares it, names ten buffers at made-up addresses and starts.
    void startGrabbing(uint8_t port = 0, uint8_t selector = 1) {
        wire::Reply reply = {};
        wire::PrepareReply prepared = {};
        ASSERT_EQ(ask<wire::ChannelAccess>({header(), 0x100u << port}, reply).status, 0u);
        ASSERT_EQ(ask<wire::Prepare>({header(port), selector, 9, 0, {0, 1, 0, 1}, {}}, prepared).status, 0u);
        ASSERT_EQ(prepared.result, 0u);
        ASSERT_EQ(send(wire::kLockChunk + 4u * port, nullptr, 0, m_chunk, sizeof m_chunk, m_chunk).status,
                  uint32_t(kStatusPending));
        m_table = {{0, 1}, {0x10000, 10ull * prepared.frameSizeBytes, 0, 10, 0}};
        ASSERT_EQ(send(wire::kChunkTable + 4u * port, nullptr, 0, &m_table, sizeof m_table).status, 0u);
        ASSERT_EQ(m_table.head.result, 0u);
        ASSERT_EQ(ask<wire::StartGrabbing>({header(port), 0}, reply).status, 0u);
        ASSERT_EQ(reply.result, 0u);
    }
    /// @return how many buffers it went into
    int runFrame() {
        m_card->tick();
        FrameJob job;
        int jobs = 0;
        for (; m_card->beginFrame(job); ++jobs)
            m_card->endFrame(job, true);
        return jobs;
    }

    FakeHost m_host;
    std::unique_ptr<Card> m_card = std::make_unique<Card>(m_host, 3);
    uint32_t m_client = 0, m_session = 0;
    uint8_t m_chunk[16] = {};
    struct {
        wire::ChunkTableHead head;
        wire::Chunk chunk;
    } m_table = {};

private:
    std::deque<std::vector<uint8_t>> m_sent;
};

} // namespace kestra::simcard
