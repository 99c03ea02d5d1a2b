local seed = 9
local function random(below)
  seed = (seed * 3877 + 29573) % 139968
  return seed % below + 1
end
local function cycle(next, seen, start)
  local length, at = 0, start
  while not seen[at] do
    seen[at] = true
    at = next[at]
    length = length + 1
  end
  return length
end

local n, cycles, longest, next, seen = math.tointeger(arg[1]), 0, 0, {}, {}
for i = 1, n do next[i], seen[i] = i, false end
for i = n, 2, -1 do
  local j = random(i)
  next[i], next[j] = next[j], next[i]
end
for i = 1, n do
  local length = cycle(next, seen, i)
  if length > 0 then cycles = cycles + 1 end
  if length > longest then longest = length end
end
local at, sum = 1, 0
for step = 1, 2 * n do
  at = next[at]
  sum = (sum + at) % 1000003
end
print(cycles .. " " .. longest .. " " .. sum)
