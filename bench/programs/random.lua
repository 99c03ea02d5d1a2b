local state = 2463534
local function random()
  state = state ~ ((state << 13) & 0x7FFFFFFF)
  state = state ~ (state >> 17)
  state = state ~ ((state << 5) & 0x7FFFFFFF)
  return state
end
local function bits(number)
  local count = 0
  while number ~= 0 do
    number = number & (number - 1)
    count = count + 1
  end
  return count
end

local low, high, set, both = 1, 0, 0, 0
for i = 1, math.tointeger(arg[1]) do
  local number = random()
  set = set + bits(number & 0xFFFF)
  low = (low + (number & 0xFF)) % 65521
  high = (low + high) % 65521
  if number & 1 ~= 0 and number & 0x400 ~= 0 then both = both + 1 end
end
print(set .. " " .. both .. " " .. ((high << 8) | low))
