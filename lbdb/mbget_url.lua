-- mbget_url: the multi-bucket get. A bucket is the authority of a URL
-- ("host" or "host:port", compared without regard to case); the caller names
-- the buckets it prefers and gets a URL from the first one that has any.
--   KEYS[1]  the segment identifier
--   ARGV[1]  comma-separated buckets in order of preference; empty = any URL
--   ARGV[2]  selector: any text (a client address, a session); the same
--            selector gets the same URL while the bucket's URLs stay the same
--   ARGV[3]  the caller's option text; accepted for symmetry with next_url,
--            no option changes this answer (nothing here moves a cursor)
-- Answers a URL, or "#err: <reason>".
--
-- Layout (see add_url.lua): one hash per segment; "u:" .. URL holds the URL's
-- expiry in seconds of the epoch (0 = never), "rr" the round-robin cursor,
-- which this script leaves alone.

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

local function bucket_of(url)
    return string.lower(string.match(url, '^%a[%w+.-]*://([^/?#]*)') or '')
end

-- The same selector and candidate list always give the same pick.
local function pick(cands, selector)
    local n = tonumber(string.sub(redis.sha1hex(selector), 1, 8), 16)
    return cands[(n % #cands) + 1]
end

local key, buckets, selector = KEYS[1], ARGV[1] or '', ARGV[2] or ''
if #KEYS ~= 1 or key == '' then
    return '#err: exactly one segment identifier expected'
end
local kind = redis.call('TYPE', key).ok
if kind ~= 'hash' and kind ~= 'none' then
    return '#err: ' .. key .. ' holds a ' .. kind .. ', not a segment'
end

local urls = refresh(key, tonumber(redis.call('TIME')[1]))
if #urls == 0 then
    return '#err: no url for ' .. key
end
if string.match(buckets, '^[%s,]*$') then
    return pick(urls, selector)
end
for b in string.gmatch(buckets, '[^,]+') do
    b = string.lower(string.match(b, '^%s*(.-)%s*$'))
    local cands = {}
    for _, u in ipairs(urls) do
        if b ~= '' and bucket_of(u) == b then
            cands[#cands + 1] = u
        end
    end
    if #cands > 0 then
        return pick(cands, selector)
    end
end
return '#err: no url for ' .. key .. ' in [' .. buckets .. ']'
