-- add_url: registers a URL for a segment until an expiry time.
--   KEYS[1]  the segment identifier (trov uses the file's destination path)
--   ARGV[1]  a URL the segment can be fetched from
--   ARGV[2]  the URL's expiry in seconds of the epoch; 0 = it never expires
-- Answers "OK " .. KEYS[1], or "#err: <reason>". Adding a URL that is already
-- there replaces its expiry.
--
-- Layout, shared by add_url, del_url, next_url and mbget_url: each segment is
-- one hash stored under its identifier, with the fields
--   "u:" .. URL   that URL's expiry, seconds of the epoch (0 = never)
--   "rr"          the round-robin cursor: answers next_url has given so far
-- Every script first drops the URLs whose expiry has come. The key carries an
-- EXPIREAT at its latest URL expiry (no TTL while one URL never expires), so a
-- segment nobody touches again vanishes on its own; a segment left without
-- URLs is deleted at once, cursor included.

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

local key, url, expiry = KEYS[1], ARGV[1], ARGV[2]
if #KEYS ~= 1 or key == '' then
    return '#err: exactly one segment identifier expected'
end
if url == nil or url == '' then
    return '#err: empty url for ' .. key
end
-- At most 15 digits: stays exact in a Lua number and valid for EXPIREAT.
if expiry == nil or #expiry > 15 or not string.match(expiry, '^%d+$') then
    return '#err: bad expiry [' .. tostring(expiry) .. '] for ' .. key
end
local now = tonumber(redis.call('TIME')[1])
local exp = tonumber(expiry)
if exp ~= 0 and exp <= now then
    return '#err: expiry ' .. expiry .. ' has passed for ' .. key
end
local kind = redis.call('TYPE', key).ok
if kind ~= 'hash' and kind ~= 'none' then
    return '#err: ' .. key .. ' holds a ' .. kind .. ', not a segment'
end

redis.call('HSET', key, 'u:' .. url, exp)
refresh(key, now)
return 'OK ' .. key
