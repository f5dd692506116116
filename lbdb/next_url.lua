-- next_url: answers a segment's URLs in turn (round robin).
--   KEYS[1]    the segment identifier
--   ARGV[...]  ignored except the last one, the caller's option text (may be
--              empty); the word "-S" there means "stay": answer the URL at
--              the cursor without moving it.
-- Answers a URL, or "#err: <reason>" when the segment has no live URL.
-- Only the last argument counts because the client's multi-bucket get runs
-- this script too, with its bucket list and selector in front of the options.
--
-- Layout (see add_url.lua): one hash per segment; "u:" .. URL holds the URL's
-- expiry in seconds of the epoch (0 = never), "rr" counts the answers given.
-- The live URLs are taken in sorted order and answer number n (from 0) is
-- URL n mod count: the turn goes through every live URL, and a URL added or
-- expired only shifts it.

if redis.replicate_commands then
    redis.replicate_commands() -- older servers: TIME before writes needs it
end

-- Drops expired URLs, sets the key's expiry from the rest and returns the
-- live URLs sorted, so that every script sees them in the same order.
local function refresh(key, now)
    local h = redis.call('HGETALL', key)
    local urls, latest, forever = {}, 0, false
    for i = 1, #h, 2 do
        local field, exp = h[i], tonumber(h[i + 1]) or 0
        if string.sub(field, 1, 2) == 'u:' then
            if exp ~= 0 and exp <= now then
                redis.call('HDEL', key, field)
            else
                urls[#urls + 1] = string.sub(field, 3)
                if exp == 0 then
                    forever = true
                elseif exp > latest then
                    latest = exp
                end
            end
        end
    end
    table.sort(urls)
    if #urls == 0 then
        redis.call('DEL', key)
    elseif forever then
        redis.call('PERSIST', key)
    else
        redis.call('EXPIREAT', key, latest)
    end
    return urls
end

local key = KEYS[1]
if #KEYS ~= 1 or key == '' then
    return '#err: exactly one segment identifier expected'
end
local stay = false
for word in string.gmatch(ARGV[#ARGV] or '', '%S+') do
    if word == '-S' then
        stay = true
    end
end
local kind = redis.call('TYPE', key).ok
if kind ~= 'hash' and kind ~= 'none' then
    return '#err: ' .. key .. ' holds a ' .. kind .. ', not a segment'
end

local urls = refresh(key, tonumber(redis.call('TIME')[1]))
if #urls == 0 then
    return '#err: no url for ' .. key
end
local served
if stay then
    served = tonumber(redis.call('HGET', key, 'rr')) or 0
else
    served = redis.call('HINCRBY', key, 'rr', 1) - 1
end
return urls[(served % #urls) + 1]
