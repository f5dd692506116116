-- release_order: gives a datagram order's claim back once its task is over.
--   KEYS[1]  the claim key, "trov:claim:<order id>"
--   ARGV[1]  the claimant, "<host name>:<pid>"
-- Deletes the key only while it still names this claimant: a claim that
-- expired and was taken by another agent is that agent's. Answers 1 when
-- the claim was released, 0 when it was not the caller's (or is gone).
if redis.call('GET', KEYS[1]) == ARGV[1] then
    return redis.call('DEL', KEYS[1])
end
return 0
