-- del_url: removes a URL from a segment.
--   KEYS[1]  the segment identifier
--   ARGV[1]  the URL to remove
-- Answers "OK " .. KEYS[1], also when the URL was not registered (removing is
-- idempotent), or "#err: <reason>".
--
-- Layout (see add_url.lua): one hash per segment; "u:" .. URL holds the URL's
-- expiry in seconds of the epoch (0 = never), "rr" the round-robin cursor.
-- Expired URLs are dropped, the key's EXPIREAT follows its latest URL expiry,
-- and a segment left without URLs is deleted.

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

local key, url = KEYS[1], ARGV[1]
if #KEYS ~= 1 or key == '' then
    return '#err: exactly one segment identifier expected'
end
if url == nil or url == '' then
    return '#err: empty url for ' .. key
end
local kind = redis.call('TYPE', key).ok
if kind ~= 'hash' and kind ~= 'none' then
    return '#err: ' .. key .. ' holds a ' .. kind .. ', not a segment'
end

redis.call('HDEL', key, 'u:' .. url)
refresh(key, tonumber(redis.call('TIME')[1]))
return 'OK ' .. key
