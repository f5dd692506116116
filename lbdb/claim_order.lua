-- claim_order: takes a datagram order for one agent, unless another agent
-- holds it already. Agents that share a multicast group all receive every
-- order; the one whose claim is made fetches it.
--   KEYS[1]  the claim key, "trov:claim:<order id>"
--   ARGV[1]  the claimant, "<host name>:<pid>"
--   ARGV[2]  how long the claim lives without a release, in milliseconds
--            (an agent that died leaves a claim that expires on its own)
-- Answers 1 when the claim is the caller's now, 0 when another holds it
-- (a repeat of the same order by the same agent is held too).
if redis.call('SET', KEYS[1], ARGV[1], 'NX', 'PX', ARGV[2]) then
    return 1
end
return 0
